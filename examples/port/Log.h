// Second: the log, since it tells what the plug-in does with all that follows.
#pragma once

#include "platform/TransactionLog.h"
#include "platform/host/Log.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace port {

using namespace appsync;

class Log final : public HostLog, public AITransactionLog {
  public:
    bool isEnabled(QRLogCategory /*category*/, LogLevel /*level*/) noexcept override { return true; }
    void write(QRLogCategory /*category*/, LogLevel /*level*/, std::string_view /*format*/,
               std::string_view text) noexcept override {
        const std::lock_guard lock(_mutex);
        _messages.emplace_back(text);
    }

    void initializeWithLog(const SystemLogPtr& /*log*/) noexcept override {}
    void logStep_byParty_phase_success_forBundleID_description(TransactionStep /*step*/, TransactionParty /*party*/,
                                                               TransactionPhase /*phase*/, bool /*success*/,
                                                               std::string_view bundleID,
                                                               std::string_view /*description*/) noexcept override {
        const std::lock_guard lock(_mutex);
        _transactions.emplace_back(bundleID);
    }
    void logScenario_step_success_forBundleID_description(std::string_view /*scenario*/, TransactionStep /*step*/,
                                                          bool /*success*/, std::string_view bundleID,
                                                          std::string_view /*description*/) noexcept override {
        const std::lock_guard lock(_mutex);
        _transactions.emplace_back(bundleID);
    }

    std::vector<std::string> messages() {
        const std::lock_guard lock(_mutex);
        return _messages;
    }
    /// How many transactions of an app were recorded.
    std::size_t transactionsOf(std::string_view bundleID) {
        const std::lock_guard lock(_mutex);
        return static_cast<std::size_t>(std::ranges::count(_transactions, bundleID));
    }

  private:
    std::mutex _mutex;
    std::vector<std::string> _messages;
    std::vector<std::string> _transactions; // the bundle identifier of each
};

} // namespace port
