// The rules of `platform/`, to be tried on any device. A port instantiates them with its factory:
//
//   APPSYNC_INSTANTIATE_CONTRACT(MyDevice, &makeMyDevice);
#pragma once

#include "tests/contract/DeviceUnderTest.h"

#include <gtest/gtest.h>

#include <optional>

namespace appsync::contract {

/// A fresh device for each rule.
class Contract : public testing::TestWithParam<DeviceFactory> {
  protected:
    void SetUp() override { makeDevice({}); }
    /// In place of the device that there is.
    void makeDevice(const Conditions& conditions) {
        _platform.reset();
        _device.reset();
        _device = GetParam()(conditions);
        _platform.emplace(_device->platform());
    }
    void restart() {
        _platform.reset();
        _device->restart();
        _platform.emplace(_device->platform());
    }
    [[nodiscard]] DeviceUnderTest& device() { return *_device; }
    [[nodiscard]] const Platform& platform() const { return *_platform; }

  private:
    std::unique_ptr<DeviceUnderTest> _device;
    std::optional<Platform> _platform;
};

class BackupContract : public Contract {};
class CoordinatorContract : public Contract {};
class CoordinatorReportContract : public Contract {};
class FileSystemContract : public Contract {};
class HomeScreenContract : public Contract {};
class HostContract : public Contract {};
class IconContract : public Contract {};
class LogContract : public Contract {};
class NotificationContract : public Contract {};
class PolicyContract : public Contract {};
class PropertyListContract : public Contract {};
class RegistryContract : public Contract {};
class RegistryObserverContract : public Contract {};
class SchedulerContract : public Contract {};
class StoreContract : public Contract {};
class UninstalledListContract : public Contract {};

} // namespace appsync::contract

#define APPSYNC_INSTANTIATE_RULES(Port, Rules, factory)                                                                \
    INSTANTIATE_TEST_SUITE_P(Port, Rules, testing::Values(factory), [](const auto&) { return "device"; })

/// Within namespace `appsync::contract`, once per port.
#define APPSYNC_INSTANTIATE_CONTRACT(Port, factory)                                                                    \
    APPSYNC_INSTANTIATE_RULES(Port, BackupContract, factory);                                                          \
    APPSYNC_INSTANTIATE_RULES(Port, CoordinatorContract, factory);                                                     \
    APPSYNC_INSTANTIATE_RULES(Port, CoordinatorReportContract, factory);                                               \
    APPSYNC_INSTANTIATE_RULES(Port, FileSystemContract, factory);                                                      \
    APPSYNC_INSTANTIATE_RULES(Port, HomeScreenContract, factory);                                                      \
    APPSYNC_INSTANTIATE_RULES(Port, HostContract, factory);                                                            \
    APPSYNC_INSTANTIATE_RULES(Port, IconContract, factory);                                                            \
    APPSYNC_INSTANTIATE_RULES(Port, LogContract, factory);                                                             \
    APPSYNC_INSTANTIATE_RULES(Port, NotificationContract, factory);                                                    \
    APPSYNC_INSTANTIATE_RULES(Port, PolicyContract, factory);                                                          \
    APPSYNC_INSTANTIATE_RULES(Port, PropertyListContract, factory);                                                    \
    APPSYNC_INSTANTIATE_RULES(Port, RegistryContract, factory);                                                        \
    APPSYNC_INSTANTIATE_RULES(Port, RegistryObserverContract, factory);                                                \
    APPSYNC_INSTANTIATE_RULES(Port, SchedulerContract, factory);                                                       \
    APPSYNC_INSTANTIATE_RULES(Port, StoreContract, factory);                                                           \
    APPSYNC_INSTANTIATE_RULES(Port, UninstalledListContract, factory)
