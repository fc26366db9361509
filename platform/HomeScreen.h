// The home screen: icon layout and the running apps that it owns.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace appsync {

using SKPort = std::uint32_t;

/// Keys of a folder in an icon layout, a dictionary: its name, and its pages, which are arrays of bundle identifiers.
inline constexpr std::string_view iconFolderName = "displayName";
inline constexpr std::string_view iconFolderPages = "iconLists";

/// While one is held, the app that it was granted for is not running and cannot be started. Dropping it lets go.
class SKSApplicationTerminationAssertion {
  public:
    virtual ~SKSApplicationTerminationAssertion() = default;
};

/// Answers of `SKSApplicationTerminationAssertionCreateWithError`; any other number is an unknown error.
enum SKSTerminationAssertionError : std::uint8_t {
    SKSTerminationAssertionGranted = 0,
    SKSTerminationAssertionDenied = 1,   // the app is busy; try again later
    SKSTerminationAssertionNotFound = 2, // no such app is running or known
};

/// Every operation may be called on any thread at any time.
class HomeScreen {
  public:
    virtual ~HomeScreen() = default;
    /// The port of the home screen's service; 0 when it does not run. Being asked wakes it.
    [[nodiscard]] virtual SKPort SKSSkellanBlockableServerPort() noexcept = 0;
    /// Applies an icon layout: the bytes of a property list from the desktop, untrusted. Its root is an array of bundle
    /// identifiers and folders or of pages, which are such arrays; what is none changes nothing.
    virtual void SKSetIconState(SKPort port, std::string_view iconState) noexcept = 0;
    /// The order of the icons: the bytes of a property list (`format` 1: binary) whose root is an array of bundle
    /// identifiers, those of the layout first. On success `*buffer` points to `*length` bytes, which the caller frees
    /// with `SKDeallocate`; otherwise, as for another port or format, it is null.
    virtual void SKGetFlattenedIconState(SKPort port, std::uint32_t format, const char** buffer,
                                         std::size_t* length) noexcept = 0;
    virtual void SKDeallocate(const char* buffer, std::size_t length) noexcept = 0;
    /// Asks that the app be ended and kept from running. Waits while the app ends. An object that comes with another
    /// answer than "granted" holds nothing.
    [[nodiscard]] virtual std::shared_ptr<SKSApplicationTerminationAssertion>
    SKSApplicationTerminationAssertionCreateWithError(std::string_view bundleIdentifier, std::uint32_t reason,
                                                      std::uint8_t* errorCode) noexcept = 0;
};

} // namespace appsync
