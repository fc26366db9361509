// The install transaction log: what was begun and ended for which app, kept for later questions.
#pragma once

#include "platform/host/Log.h"

#include <cstdint>
#include <string_view>

namespace appsync {

/// Steps of `logStep_…`.
enum class TransactionStep : std::uint32_t {
    none = 0,
    installOrUpdate = 1,
    restore = 2,
    coordinatorCreation = 3,
    placeholderCreation = 4,
    iconCopy = 5,
    uninstall = 7,
};
enum class TransactionParty : std::uint32_t { syncPlugIn = 1 };
enum class TransactionPhase : std::uint32_t { start = 1, end = 2 };

/// Every operation may be called on any thread at any time.
class AITransactionLog {
  public:
    virtual ~AITransactionLog() = default;
    /// Called once, when the plug-in's client is created, with the log that records are mirrored to.
    virtual void initializeWithLog(const SystemLogPtr& log) noexcept = 0;
    /// Records the start (always a success) or the end of a step.
    virtual void logStep_byParty_phase_success_forBundleID_description(TransactionStep step, TransactionParty party,
                                                                       TransactionPhase phase, bool success,
                                                                       std::string_view bundleID,
                                                                       std::string_view description) noexcept = 0;
    /// Records one event of a named scenario.
    virtual void logScenario_step_success_forBundleID_description(std::string_view scenario, TransactionStep step,
                                                                  bool success, std::string_view bundleID,
                                                                  std::string_view description) noexcept = 0;
};

} // namespace appsync
