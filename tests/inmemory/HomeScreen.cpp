#include "tests/inmemory/HomeScreen.h"

namespace appsync::inmemory {

namespace {

constexpr SKPort port = 77;
constexpr int noticeToken = 5;

class Assertion final : public SKSApplicationTerminationAssertion {
  public:
    Assertion(Context& context, std::string identifier) : _context(context), _identifier(std::move(identifier)) {}
    ~Assertion() override { _context.call("screen.releaseAssertion", _identifier); }

  private:
    Context& _context;
    const std::string _identifier;
};

} // namespace

SKPort Screen::SKSSkellanBlockableServerPort() noexcept {
    _context.call("screen.port");
    return port;
}

void Screen::SKSetIconState(SKPort usedPort, std::string_view iconState) noexcept {
    _context.call("screen.SKSetIconState", "port " + std::to_string(usedPort) + ", " + std::string(iconState));
}

void Screen::SKGetFlattenedIconState(SKPort usedPort, std::uint32_t format, const char** buffer,
                                     std::size_t* length) noexcept {
    _context.call("screen.SKGetFlattenedIconState",
                  "port " + std::to_string(usedPort) + ", format " + std::to_string(format));
    *buffer = iconOrder ? iconOrder->data() : nullptr;
    *length = iconOrder ? iconOrder->size() : 0;
}

void Screen::SKDeallocate(const char* buffer, std::size_t length) noexcept {
    const bool own = iconOrder && buffer == iconOrder->data() && length == iconOrder->size();
    _context.call("screen.SKDeallocate", own ? "" : "a foreign buffer");
}

std::shared_ptr<SKSApplicationTerminationAssertion>
Screen::SKSApplicationTerminationAssertionCreateWithError(std::string_view bundleIdentifier, std::uint32_t reason,
                                                          std::uint8_t* errorCode) noexcept {
    _context.call("screen.assertion", std::string(bundleIdentifier) + ", reason " + std::to_string(reason));
    beforeAssertion();
    const std::lock_guard lock(_mutex);
    std::uint8_t answer = SKSTerminationAssertionGranted;
    if (!assertionAnswers.empty()) {
        answer = assertionAnswers.front();
        assertionAnswers.pop_front();
    }
    *errorCode = answer;
    if (answer == SKSTerminationAssertionNotFound) {
        return nullptr;
    }
    return std::make_shared<Assertion>(_context, std::string(bundleIdentifier));
}

std::uint32_t NoticeService::notify_register_check(std::string_view name, int* token) noexcept {
    const ErrorPtr fault = _context.call("notify.register", std::string(name));
    if (fault != nullptr) {
        return static_cast<std::uint32_t>(fault->code());
    }
    *token = noticeToken;
    return 0;
}

std::uint32_t NoticeService::notify_set_state(int token, std::uint64_t state) noexcept {
    _context.call("notify.setState", "token " + std::to_string(token) + ", " + std::to_string(state));
    return 0;
}

std::uint32_t NoticeService::notify_post(std::string_view name) noexcept {
    _context.call("notify.post", std::string(name));
    return 0;
}

void Center::addObserver(void* observer, NotificationCallback callback, std::string_view name, const void* object,
                         NotificationSuspensionBehavior suspensionBehavior) noexcept {
    _context.call("center.addObserver", std::string(name) + (object == nullptr ? ", no object" : ", object") +
                                            ", suspension " +
                                            std::to_string(static_cast<unsigned>(suspensionBehavior)));
    _observers.push_back({observer, callback, std::string(name)});
}

void Center::removeObserver(void* observer, std::string_view name) noexcept {
    _context.call("center.removeObserver", std::string(name));
    std::erase_if(_observers, [&](const Observer& each) { return each.object == observer && each.name == name; });
}

void Center::post(std::string_view name) {
    for (const Observer& observer : _observers) {
        if (observer.name == name) {
            observer.callback(this, observer.object, name, nullptr, nullptr);
        }
    }
}

// Icons.

namespace {

struct BundleInFiles final : Bundle {
    std::string path;
    Dictionary info;
    std::optional<Value> objectForInfoDictionaryKey(std::string_view key) noexcept override {
        const Value* value = info.find(key);
        return value != nullptr ? std::optional(*value) : std::nullopt;
    }
};

struct NamedImage final : Image {
    std::string name;
};

class Destination final : public ImageDestination {
  public:
    explicit Destination(Context& context) : _context(context) {}
    void addImage(const std::shared_ptr<Image>& image) noexcept override {
        _name = static_cast<NamedImage&>(*image).name;
        _context.call("image.addImage", _name);
    }
    std::optional<Data> finalize() noexcept override {
        if (_context.call("image.finalize") != nullptr) {
            return std::nullopt;
        }
        return Data("PNG of " + _name);
    }

  private:
    Context& _context;
    std::string _name;
};

} // namespace

std::shared_ptr<Bundle> Icons::bundleWithURL(const FileURL& url) noexcept {
    if (_context.call("bundles.bundleWithURL", url.description()) != nullptr || !_files.exists(url.path())) {
        return nullptr;
    }
    auto bundle = std::make_shared<BundleInFiles>();
    bundle->path = url.path();
    if (const auto info = _files.plistAt(url.path() + "/Info.plist"); info && info->dictionary() != nullptr) {
        bundle->info = *info->dictionary();
    }
    return bundle;
}

std::shared_ptr<Image>
Icons::YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(const std::shared_ptr<Bundle>& bundle) noexcept {
    auto image = std::make_shared<NamedImage>();
    image->name = static_cast<BundleInFiles&>(*bundle).path;
    return _context.call("icons.render", image->name) != nullptr ? nullptr : image;
}

std::unique_ptr<ImageDestination> Icons::destinationWithType_count(std::string_view type, std::size_t count) noexcept {
    if (_context.call("image.destination", std::string(type) + ", " + std::to_string(count)) != nullptr) {
        return nullptr;
    }
    return std::make_unique<Destination>(_context);
}

} // namespace appsync::inmemory
