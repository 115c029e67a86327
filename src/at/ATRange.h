// SPDX-License-Identifier: Apache-2.0
// The probe temperatures that board, flow table and operator allow together.
#pragma once

#include <atomic>
#include <limits>
#include <memory>
#include <utility>

class ATFlowTable;
class TempBoardQ47Ifc;

/// The range of the probe's target. Any thread; blocks no longer than the board takes to tell its range.
class ATRange {
public:
    /// @param aBoard      The temperature board; not null.
    /// @param aFlowTable  The table of gas flows; not null.
    ATRange(std::shared_ptr<TempBoardQ47Ifc> aBoard, std::shared_ptr<ATFlowTable> aFlowTable);

    /// @param aKelvin  The operator's lower limit in K, from 0.0 on. It is not held against the upper one.
    /// @throws std::invalid_argument  when it is negative.
    void setProbeMin(double aKelvin);

    /// @param aKelvin  The operator's upper limit in K, from 0.0 on. It is not held against the lower one.
    /// @throws std::invalid_argument  when it is negative.
    void setProbeMax(double aKelvin);

    /// @return Lowest and highest target in K. There is none when the first is the higher one.
    /// @throws std::exception  what the board throws.
    std::pair<double, double> range() const;

private:
    std::shared_ptr<TempBoardQ47Ifc> mBoard;
    std::shared_ptr<ATFlowTable> mFlowTable;
    std::atomic<double> mProbeMin{0.0};
    std::atomic<double> mProbeMax{std::numeric_limits<double>::max()};
};
