#include "host/transfer/TransferRate.h"

#include <cmath>

namespace appsync::host {

void TransferRate::sent(double bytes, Clock::time_point now) {
    using Seconds = std::chrono::duration<double>;
    constexpr Seconds shortest{0.2}; // a shorter time tells little
    constexpr Seconds memory{3};
    if (_time && now - *_time < shortest) {
        return;
    }
    if (_time && bytes >= _bytes) {
        const Seconds passed = now - *_time;
        const double latest = (bytes - _bytes) / passed.count();
        const double weight = _rate ? 1 - std::exp(-passed / memory) : 1;
        _rate = latest * weight + _rate.value_or(0) * (1 - weight);
    }
    _time = now;
    _bytes = bytes;
}

} // namespace appsync::host
