// SPDX-License-Identifier: Apache-2.0
// Which change of a temperature is worth a line.
#include "apps/fieldwarden/TemperatureWatch.h"

#include <fieldwarden/BoundedValue.h>
#include <fieldwarden/TemperatureInterface.h>
#include <velmor/platform/Clock.h>

#include <cmath>
#include <exception>

#include <fmt/format.h>

namespace libfieldwarden::app {

namespace {

constexpr double kMagnetStep = 0.02;
constexpr double kCoilStep = 0.05;
constexpr double kIsoBoxStep = 0.2;
constexpr double kProbeStep = 1.0;

bool movedEnough(Temperatures const& aTold, Temperatures const& aNow) {
    return std::abs(aNow.magnetKelvin - aTold.magnetKelvin) >= kMagnetStep ||
           std::abs(aNow.coilCelsius - aTold.coilCelsius) >= kCoilStep ||
           std::abs(aNow.isoBoxKelvin - aTold.isoBoxKelvin) >= kIsoBoxStep ||
           std::abs(aNow.probeKelvin.value_or(0.0) - aTold.probeKelvin.value_or(0.0)) >= kProbeStep;
}

} // namespace

std::string Temperatures::words() const {
    return fmt::format("{:.3f} K, shim coil {:.3f} C, iso box {:.2f} K", magnetKelvin, coilCelsius,
                       isoBoxKelvin) +
           (probeKelvin ? fmt::format(", probe {:.1f} K", *probeKelvin) : "");
}

TemperatureWatch::TemperatureWatch(TemperatureInterface& aTemperature, EventQueue& aQueue)
    : mTemperature(aTemperature)
    , mQueue(aQueue) {}

void TemperatureWatch::look() {
    try {
        read();
    } catch (std::exception const& error) {
        mNow.reset();
        if (!mSilent) {
            mQueue.push({{},
                         "magnet",
                         "boardSilent",
                         std::string("no temperatures: ") + error.what(),
                         {{"text", error.what()}},
                         Tone::Alarm});
        }
        mSilent = true;
        return;
    }
    mSilent = false;
    tellMoves();
    tellReadiness();
}

void TemperatureWatch::read() {
    Temperatures now;
    BoundedValue const magnet = mTemperature.getMagnetTemperature();
    now.magnetKelvin = magnet.value;
    now.coilCelsius = mTemperature.getShimCoilTemperature().value;
    now.isoBoxKelvin = mTemperature.getIsoBoxTemperature().value;
    if (mTemperature.getProbeDeviceActiveChannel() != 0) {
        now.probeKelvin = mTemperature.getProbeTemperature().value;
        now.flowLiterPerHour = mTemperature.getProbeMeasuredGasFlow();
    }
    mReadiness.look(magnet.value, (magnet.upper + magnet.lower) / 2.0, mTemperature.isMagnetReady(),
                    velmor::platform::Clock::current().now().time_since_epoch());
    mNow = now;
}

void TemperatureWatch::tellMoves() {
    if (mTold && !movedEnough(*mTold, *mNow)) {
        return;
    }
    mTold = mNow;
    Event event{{},
                "magnet",
                kTemperatures,
                mNow->words(),
                {{"magnetKelvin", mNow->magnetKelvin},
                 {"coilCelsius", mNow->coilCelsius},
                 {"isoBoxKelvin", mNow->isoBoxKelvin}},
                Tone::Plain};
    if (mNow->probeKelvin) {
        event.fields["probeKelvin"] = *mNow->probeKelvin;
    }
    mQueue.push(std::move(event));
}

/// That it is ready the service tells itself.
void TemperatureWatch::tellReadiness() {
    auto const kind = mReadiness.kind();
    if (mToldKind == kind) {
        return;
    }
    mToldKind = kind;
    if (kind == MagnetReadiness::Kind::Ready) {
        return;
    }
    auto const minutes = mReadiness.minutesAtMost();
    mQueue.push({{},
                 "magnet",
                 kReadiness,
                 mReadiness.words(),
                 {{"ready", false},
                  {"minutesAtMost", minutes ? nlohmann::ordered_json(*minutes) : nlohmann::ordered_json()}},
                 Tone::Plain});
}

std::string TemperatureWatch::words(bool aWithProbe) const {
    if (!mNow) {
        return "no temperatures";
    }
    Temperatures shown = *mNow;
    if (!aWithProbe) {
        shown.probeKelvin.reset();
    }
    return "magnet " + mReadiness.words() + ", " + shown.words();
}

} // namespace libfieldwarden::app
