// SPDX-License-Identifier: Apache-2.0
// The shim matrix that a TOSK file holds: gradients to coils, coils to gradients, and a weight for each
// gradient.
#pragma once

#include "shim/AbstractShimMatrix.h"
#include "shim/FileEntry.h"

#include <velmor/kepla/log/Logger.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <boost/numeric/ublas/matrix.hpp>
#include <boost/numeric/ublas/vector.hpp>

/// One loaded matrix file. Complete when it is constructed and never changed afterwards; another shim system
/// means another object.
///
/// The two directions differ on purpose: on the way to the coils a weighted gradient is truncated, on the way
/// back it is rounded. docs/shim.md tells the file's format.
class ShimMatrixTOSK : public AbstractShimMatrix, private virtual velmor::kepla::log::Logger {
public:
    /// Loads a file. Blocks as long as the file system needs.
    /// @throws std::invalid_argument  when the file cannot be opened or read, or when a weight stands at a
    ///                                number that is no gradient's.
    /// @throws std::runtime_error     when the text is not a TOSK file; the log has the line.
    /// @throws std::out_of_range      when a row or column is not within 1 to 40.
    explicit ShimMatrixTOSK(std::string const& aPath);

    boost::numeric::ublas::vector<double> gradientsToCoils(ShimGradientsTOSK* aGradients) override;

    /// A gradient whose weight is 0 comes back as 0, and so does every other value that is not finite.
    void coilsToGradients(boost::numeric::ublas::vector<double>* aCoils,
                          ShimGradientsTOSK* aGradients) override;

    std::string getNamesOfActiveShimGradients() override;

    /// @return The relations as a user would compute with them, the weights folded in, as lines of the file's
    /// tags 'F' and 'I', with 11 significant digits; elements of 0 are left out.
    std::string exportForwardAndInverse();

private:
    using Matrix = boost::numeric::ublas::matrix<double>; // row major
    using Relations = std::vector<std::unique_ptr<shim::ToskFileEntry_ForwardRelation>>;
    using Weights = std::vector<std::unique_ptr<shim::ToskFileEntry_Weight>>;

    std::string loadTextFile(std::string const& aPath) const;
    void loadFromFile(std::string const& aPath);
    void parseToskFile(std::string const& aText, Relations& aForward, Relations& aInverse, Weights& aWeights);
    void setMatrix(Matrix& aMatrix, Relations const& aRelations);
    void logMatrix(std::string const& aName, Matrix const& aMatrix);
    void setSensitivity(Weights const& aWeights);
    std::string computeActiveShimGradientsString(Weights const& aWeights);
    void applySensitivity(boost::numeric::ublas::vector<int>* aGradients) const;
    void applyReverseSensitivity(boost::numeric::ublas::vector<double>* aGradients) const;
    void exportMatrix(Matrix const& aMatrix, std::string const& aTag, std::stringstream& aStream);

    /// Reads the fields behind 'F' or 'I' into a list. @return false when one of them is bad.
    static bool readRelation(Relations& aRelations, char const*& aText, int& aLine);
    /// Reads the fields behind 'V' into a list. @return false when one of them is bad.
    static bool readWeight(Weights& aWeights, char const*& aText, int& aLine);
    /// Reads the fields behind 'M', which are only tested. @throws std::runtime_error when they are bad.
    void readMode(char const*& aText, int& aLine) const;

    Matrix mForward; ///< (i, j): coil j per unit of gradient i.
    Matrix mInverse; ///< (i, j): gradient j per unit of coil i.
    std::string mActiveGradientNames;
    std::vector<double> mSensitivity; ///< By gradient code; 0.0 for those that the file does not list.
};
