// What the clients of the install coordinator hold: each handle stands for a coordinator, placeholder or promise that
// the engine keeps. Several may stand for the same one. They must be dropped before the engine goes.
#pragma once

#include "device/coordinator/CoordinatorEngine.h"

namespace appsync::device {

[[nodiscard]] KXAppInstallCoordinatorPtr makeCoordinatorHandle(CoordinatorEngine& engine,
                                                               const CoordinatorStatePtr& state);
[[nodiscard]] KXPromisedTransferToPathPtr makeTransferPromiseHandle(CoordinatorEngine& engine,
                                                                    const PromisePtr& promise);
[[nodiscard]] KXPromisedOutOfBandTransferPtr makeOutOfBandPromiseHandle(CoordinatorEngine& engine,
                                                                        const PromisePtr& promise);
[[nodiscard]] KXPlaceholderPtr makePlaceholderHandle(CoordinatorEngine& engine, const PlaceholderPtr& placeholder);

/// Whether it is a success; else its error goes to `error` unless that is null.
template <class T> bool hasSucceeded(const Result<T>& outcome, ErrorPtr* error) noexcept {
    if (!outcome && error) {
        *error = outcome.error();
    }
    return bool(outcome);
}

} // namespace appsync::device
