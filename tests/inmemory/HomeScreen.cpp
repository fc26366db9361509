#include "tests/inmemory/HomeScreen.h"

#include "propertylist/Codec.h"

#include <algorithm>

namespace appsync::inmemory {

namespace {

constexpr SKPort port = 77;
constexpr std::uint32_t flattenedFormat = 1;
constexpr std::size_t firstNoticeToken = 5;
constexpr std::uint32_t invalidNotice = 1;

/// The identifiers of a list, and of the lists within it.
void flatten(const Array& list, Array& order) {
    for (const Value& place : list) {
        if (place.array()) {
            flatten(*place.array(), order);
        } else if (place.string() && std::ranges::find(order, place) == order.end()) {
            order.push_back(place);
        }
    }
}

} // namespace

class Screen::Assertion final : public SKSApplicationTerminationAssertion {
  public:
    Assertion(Screen& screen, std::string identifier, bool holds)
        : _screen(screen), _identifier(std::move(identifier)), _holds(holds) {}
    ~Assertion() override {
        _screen._context.call("screen.releaseAssertion", _identifier);
        if (_holds) {
            const std::lock_guard lock(_screen._mutex);
            _screen._held.erase(_screen._held.find(_identifier));
        }
    }

  private:
    Screen& _screen;
    const std::string _identifier;
    const bool _holds;
};

SKPort Screen::SKSSkellanBlockableServerPort() noexcept {
    return _context.call("screen.port") ? 0 : port;
}

void Screen::SKSetIconState(SKPort usedPort, std::string_view iconState) noexcept {
    _context.call("screen.SKSetIconState", "port " + std::to_string(usedPort) + ", " + std::string(iconState));
    PropertyListCodec codec;
    const auto layout = codec.propertyListWithData(iconState, nullptr);
    if (usedPort != port || !layout || !layout->array()) {
        return;
    }
    Array order;
    flatten(*layout->array(), order);
    if (const auto bytes = codec.dataWithPropertyList(order, PropertyListFormat::binary, nullptr)) {
        iconOrder = std::string(bytes->bytes());
    }
}

void Screen::SKGetFlattenedIconState(SKPort usedPort, std::uint32_t format, const char** buffer,
                                     std::size_t* length) noexcept {
    _context.call("screen.SKGetFlattenedIconState",
                  "port " + std::to_string(usedPort) + ", format " + std::to_string(format));
    const bool hasAnswer = iconOrder && usedPort == port && format == flattenedFormat;
    *buffer = hasAnswer ? iconOrder->data() : nullptr;
    *length = hasAnswer ? iconOrder->size() : 0;
}

void Screen::SKDeallocate(const char* buffer, std::size_t length) noexcept {
    const bool own = iconOrder && buffer == iconOrder->data() && length == iconOrder->size();
    _context.call("screen.SKDeallocate", own ? "" : "a foreign buffer");
}

std::shared_ptr<SKSApplicationTerminationAssertion>
Screen::SKSApplicationTerminationAssertionCreateWithError(std::string_view bundleIdentifier, std::uint32_t reason,
                                                          std::uint8_t* errorCode) noexcept {
    const ErrorPtr fault =
        _context.call("screen.assertion", std::string(bundleIdentifier) + ", reason " + std::to_string(reason));
    beforeAssertion();
    const std::lock_guard lock(_mutex);
    const std::uint8_t answer = fault ? static_cast<std::uint8_t>(fault->code()) : _answer(bundleIdentifier);
    *errorCode = answer;
    if (answer == SKSTerminationAssertionNotFound && !assertsWhatItDoesNotFind) {
        return nullptr;
    }
    const bool isGranted = answer == SKSTerminationAssertionGranted;
    if (isGranted) {
        _held.emplace(bundleIdentifier);
    }
    return std::make_shared<Assertion>(*this, std::string(bundleIdentifier), isGranted);
}

std::uint8_t Screen::_answer(std::string_view identifier) {
    if (!assertionAnswers.empty()) {
        const std::uint8_t answer = assertionAnswers.front();
        assertionAnswers.pop_front();
        return answer;
    }
    if (!runningApps) {
        return SKSTerminationAssertionGranted;
    }
    const auto app = runningApps->find(identifier);
    if (app == runningApps->end()) {
        return SKSTerminationAssertionNotFound;
    }
    if (app->second) {
        return SKSTerminationAssertionDenied;
    }
    runningApps->erase(app);
    return SKSTerminationAssertionGranted;
}

bool Screen::start(const std::string& identifier, bool busy) {
    const std::lock_guard lock(_mutex);
    return !_held.contains(identifier) && runningApps && runningApps->emplace(identifier, busy).second;
}

bool Screen::isRunning(std::string_view identifier) {
    const std::lock_guard lock(_mutex);
    return !runningApps || runningApps->contains(identifier);
}

std::uint32_t NoticeService::notify_register_check(std::string_view name, int* token) noexcept {
    const ErrorPtr fault = _context.call("notify.register", std::string(name));
    if (fault) {
        return static_cast<std::uint32_t>(fault->code());
    }
    const std::lock_guard lock(_mutex);
    *token = static_cast<int>(firstNoticeToken + _indexOf(name));
    return 0;
}

std::uint32_t NoticeService::notify_set_state(int token, std::uint64_t state) noexcept {
    _context.call("notify.setState", "token " + std::to_string(token) + ", " + std::to_string(state));
    const std::lock_guard lock(_mutex);
    const std::size_t index = static_cast<std::size_t>(token) - firstNoticeToken;
    if (index >= _names.size()) {
        return invalidNotice;
    }
    _names[index].state = state;
    return 0;
}

std::uint32_t NoticeService::notify_post(std::string_view name) noexcept {
    _context.call("notify.post", std::string(name));
    const std::lock_guard lock(_mutex);
    ++_names[_indexOf(name)].posts;
    return 0;
}

std::size_t NoticeService::_indexOf(std::string_view name) {
    const auto found = std::ranges::find(_names, name, &Name::name);
    const auto index = static_cast<std::size_t>(found - _names.begin());
    if (found == _names.end()) {
        _names.push_back({std::string(name)});
    }
    return index;
}

NoticeService::Name NoticeService::_find(std::string_view name) const {
    const std::lock_guard lock(_mutex);
    const auto found = std::ranges::find(_names, name, &Name::name);
    return found != _names.end() ? *found : Name();
}

std::uint64_t NoticeService::stateOf(std::string_view name) const {
    return _find(name).state;
}

std::uint64_t NoticeService::postsOf(std::string_view name) const {
    return _find(name).posts;
}

void Center::addObserver(void* observer, NotificationCallback callback, std::string_view name, const void* object,
                         NotificationSuspensionBehavior suspensionBehavior) noexcept {
    _context.call("center.addObserver", std::string(name) + (!object ? ", no object" : ", object") + ", suspension " +
                                            std::to_string(static_cast<unsigned>(suspensionBehavior)));
    auto observation = std::make_shared<Observation>();
    observation->observer = observer;
    observation->callback = callback;
    observation->name = name;
    observation->object = object;
    const std::lock_guard lock(_mutex);
    _observations.push_back(std::move(observation));
}

void Center::removeObserver(void* observer, std::string_view name) noexcept {
    _context.call("center.removeObserver", std::string(name));
    std::vector<std::shared_ptr<Observation>> removed;
    {
        const std::lock_guard lock(_mutex);
        std::erase_if(_observations, [&](const auto& each) {
            const bool isMeant = each->observer == observer && each->name == name;
            if (isMeant) {
                removed.push_back(each);
            }
            return isMeant;
        });
    }
    for (const auto& each : removed) {
        const std::lock_guard lock(each->calling); // waits for a running call
        each->isRemoved = true;
    }
}

void Center::post(std::string_view name, const void* object, const Dictionary* userInfo) {
    std::vector<std::shared_ptr<Observation>> observations;
    {
        const std::lock_guard lock(_mutex);
        observations = _observations;
    }
    for (const auto& each : observations) {
        const std::lock_guard lock(each->calling);
        if (!each->isRemoved && each->name == name && (!each->object || each->object == object)) {
            each->callback(this, each->observer, name, object, userInfo);
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
        return value ? std::optional(*value) : std::nullopt;
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
        _context.call("image.addImage", *_name);
    }
    std::optional<Data> finalize() noexcept override {
        if (_context.call("image.finalize") || !_name) {
            return std::nullopt;
        }
        return Data("PNG of " + *_name);
    }

  private:
    Context& _context;
    std::optional<std::string> _name;
};

} // namespace

std::shared_ptr<Bundle> Icons::bundleWithURL(const FileURL& url) noexcept {
    if (_context.call("bundles.bundleWithURL", url.description()) || !_files.hasFolder(url.path())) {
        return nullptr;
    }
    auto bundle = std::make_shared<BundleInFiles>();
    bundle->path = url.path();
    if (const auto info = _files.plistAt(url.path() + "/Info.plist"); info && info->dictionary()) {
        bundle->info = *info->dictionary();
    }
    return bundle;
}

std::shared_ptr<Image>
Icons::YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(const std::shared_ptr<Bundle>& bundle) noexcept {
    auto image = std::make_shared<NamedImage>();
    image->name = static_cast<BundleInFiles&>(*bundle).path;
    return _context.call("icons.render", image->name) ? nullptr : image;
}

std::unique_ptr<ImageDestination> Icons::destinationWithType_count(std::string_view type, std::size_t count) noexcept {
    if (_context.call("image.destination", std::string(type) + ", " + std::to_string(count)) || type != "public.png") {
        return nullptr;
    }
    return std::make_unique<Destination>(_context);
}

} // namespace appsync::inmemory
