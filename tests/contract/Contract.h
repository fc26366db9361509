// The rules of `platform/`, to be tried on any device. A port instantiates them with its factory:
//
//   APPSYNC_INSTANTIATE_CONTRACT(MyDevice, &makeMyDevice);
//
// or, while it has not all services, suite by suite, each in one of two ways:
//
//   APPSYNC_INSTANTIATE_RULES(MyDevice, FileSystemContract, &makeMyDevice);
//   APPSYNC_WITHOUT_RULES(IconContract);
#pragma once

#include "tests/contract/DeviceUnderTest.h"

#include <gtest/gtest.h>

#include <optional>
#include <ostream>

/// Skips a rule on a device that lacks what it speaks of.
#define APPSYNC_NEEDS(ability)                                                                                         \
    if (!device().can(Ability::ability)) {                                                                             \
        GTEST_SKIP() << "the device lacks: " #ability;                                                                 \
    }

namespace appsync::contract {

/// What the rules are tried on.
struct Port {
    const char* name;
    DeviceFactory makeDevice;
    friend std::ostream& operator<<(std::ostream& out, const Port& port) { return out << port.name; }
};

/// A fresh device for each rule.
class Contract : public testing::TestWithParam<Port> {
  protected:
    void SetUp() override { makeDevice({}); }
    /// In place of the device that there is.
    void makeDevice(const Conditions& conditions) {
        _platform.reset();
        _device.reset();
        _device = GetParam().makeDevice(conditions);
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
class CoordinationContract : public Contract {};
class CoordinatorContract : public Contract {
  protected:
    void SetUp() override {
        Contract::SetUp();
        APPSYNC_NEEDS(hasCoordinators);
    }
};
class CoordinatorReportContract : public Contract {
  protected:
    void SetUp() override {
        Contract::SetUp();
        APPSYNC_NEEDS(runsCoordinators);
    }
};
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

#define APPSYNC_INSTANTIATE_RULES(name, Rules, factory)                                                                \
    INSTANTIATE_TEST_SUITE_P(name, Rules, testing::Values(Port{#name, factory}))

/// Of a service that the port has not; a suite of which nothing is said fails the port's test program.
#define APPSYNC_WITHOUT_RULES(Rules) GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(Rules)

/// Within namespace `appsync::contract`, once per port.
#define APPSYNC_INSTANTIATE_CONTRACT(name, factory)                                                                    \
    APPSYNC_INSTANTIATE_RULES(name, BackupContract, factory);                                                          \
    APPSYNC_INSTANTIATE_RULES(name, CoordinationContract, factory);                                                    \
    APPSYNC_INSTANTIATE_RULES(name, CoordinatorContract, factory);                                                     \
    APPSYNC_INSTANTIATE_RULES(name, CoordinatorReportContract, factory);                                               \
    APPSYNC_INSTANTIATE_RULES(name, FileSystemContract, factory);                                                      \
    APPSYNC_INSTANTIATE_RULES(name, HomeScreenContract, factory);                                                      \
    APPSYNC_INSTANTIATE_RULES(name, HostContract, factory);                                                            \
    APPSYNC_INSTANTIATE_RULES(name, IconContract, factory);                                                            \
    APPSYNC_INSTANTIATE_RULES(name, LogContract, factory);                                                             \
    APPSYNC_INSTANTIATE_RULES(name, NotificationContract, factory);                                                    \
    APPSYNC_INSTANTIATE_RULES(name, PolicyContract, factory);                                                          \
    APPSYNC_INSTANTIATE_RULES(name, PropertyListContract, factory);                                                    \
    APPSYNC_INSTANTIATE_RULES(name, RegistryContract, factory);                                                        \
    APPSYNC_INSTANTIATE_RULES(name, RegistryObserverContract, factory);                                                \
    APPSYNC_INSTANTIATE_RULES(name, SchedulerContract, factory);                                                       \
    APPSYNC_INSTANTIATE_RULES(name, StoreContract, factory);                                                           \
    APPSYNC_INSTANTIATE_RULES(name, UninstalledListContract, factory)
