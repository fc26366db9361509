// The home screen, notifications and icons in memory.
#pragma once

#include "platform/HomeScreen.h"
#include "platform/Icons.h"
#include "platform/Notifications.h"
#include "tests/inmemory/Context.h"
#include "tests/inmemory/Files.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace appsync::inmemory {

class Screen final : public HomeScreen {
  public:
    explicit Screen(Context& context) : _context(context) {}
    SKPort SKSSkellanBlockableServerPort() noexcept override;
    void SKSetIconState(SKPort port, std::string_view iconState) noexcept override;
    void SKGetFlattenedIconState(SKPort port, std::uint32_t format, const char** buffer,
                                 std::size_t* length) noexcept override;
    void SKDeallocate(const char* buffer, std::size_t length) noexcept override;
    std::shared_ptr<SKSApplicationTerminationAssertion>
    SKSApplicationTerminationAssertionCreateWithError(std::string_view bundleIdentifier, std::uint32_t reason,
                                                      std::uint8_t* errorCode) noexcept override;

    /// The bytes of the icon order; nothing when the home screen has no answer. A layout of identifiers or of pages of
    /// them replaces it.
    std::optional<std::string> iconOrder;
    /// What the next requests for an assertion are answered; when it runs out, the running apps count. The code
    /// of a fault goes before it.
    std::deque<std::uint8_t> assertionAnswers;
    /// The apps that run, and whether they are busy; nothing: every app runs and is not busy.
    std::optional<std::map<std::string, bool, std::less<>>> runningApps;
    /// Whether there is an assertion object also for an app that is not found.
    bool assertsWhatItDoesNotFind = false;
    /// Has an app run; false when an assertion keeps it from that.
    bool start(const std::string& identifier, bool busy);
    [[nodiscard]] bool isRunning(std::string_view identifier);
    /// Runs within each request for an assertion, on the caller's thread.
    std::function<void()> beforeAssertion = [] {};

  private:
    class Assertion;
    std::uint8_t _answer(std::string_view identifier);

    Context& _context;
    std::mutex _mutex;
    std::multiset<std::string, std::less<>> _held;
};

class NoticeService final : public NotificationService {
  public:
    explicit NoticeService(Context& context) : _context(context) {}
    std::uint32_t notify_register_check(std::string_view name, int* token) noexcept override;
    std::uint32_t notify_set_state(int token, std::uint64_t state) noexcept override;
    std::uint32_t notify_post(std::string_view name) noexcept override;

    [[nodiscard]] std::uint64_t stateOf(std::string_view name) const;
    [[nodiscard]] std::uint64_t postsOf(std::string_view name) const;

  private:
    struct Name {
        std::string name;
        std::uint64_t state = 0;
        std::uint64_t posts = 0;
    };
    std::size_t _indexOf(std::string_view name);
    [[nodiscard]] Name _find(std::string_view name) const;

    Context& _context;
    mutable std::mutex _mutex;
    std::vector<Name> _names;
};

class Center final : public NotificationCenter {
  public:
    explicit Center(Context& context) : _context(context) {}
    void addObserver(void* observer, NotificationCallback callback, std::string_view name, const void* object,
                     NotificationSuspensionBehavior suspensionBehavior) noexcept override;
    void removeObserver(void* observer, std::string_view name) noexcept override;
    /// Calls the observers of a name on the caller's thread, which is the center's then.
    void post(std::string_view name, const void* object = nullptr, const Dictionary* userInfo = nullptr);

  private:
    struct Observation {
        void* observer;
        NotificationCallback callback;
        std::string name;
        const void* object; // null: whoever posts
        bool isRemoved = false;
        std::recursive_mutex calling; // held during a call, which may remove its own observer
    };
    Context& _context;
    std::mutex _mutex;
    std::vector<std::shared_ptr<Observation>> _observations;
};

/// Bundles of the in-memory files; an image is the name of its bundle, and its encoding is "PNG of " with that name.
class Icons final : public BundleClass, public IconRenderer, public ImageDestinationClass {
  public:
    Icons(Context& context, Files& files) : _context(context), _files(files) {}
    std::shared_ptr<Bundle> bundleWithURL(const FileURL& url) noexcept override;
    std::shared_ptr<Image>
    YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(const std::shared_ptr<Bundle>& bundle) noexcept override;
    std::unique_ptr<ImageDestination> destinationWithType_count(std::string_view type,
                                                                std::size_t count) noexcept override;

  private:
    Context& _context;
    Files& _files;
};

} // namespace appsync::inmemory
