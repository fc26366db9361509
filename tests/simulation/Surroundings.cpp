#include "tests/simulation/Surroundings.h"

#include "plugin/client/Paths.h"

namespace appsync::simulation {

namespace {

constexpr std::array<std::string_view, 10> library = {"com.example.mail",
                                                      "com.example.maps",
                                                      "com.example.notes",
                                                      "com.example.chess",
                                                      "com.example.radio",
                                                      "com.example...dots",
                                                      "x",
                                                      "com.example.a-Icon",
                                                      "..two",
                                                      "com.example.weather"};
constexpr std::array<std::string_view, 5> unsafe = {"com.example/../../etc", "/..", "a/../b", "x/..", "a/..b"};
constexpr std::array<std::string_view, 7> operations = {"install", "install", "install", "install",
                                                        "remove",  "Remove",  "other"};
constexpr std::array<std::uint64_t, 5> placeholderTypes = {PDInstallTypeStoreDownload, PDInstallTypeRestore,
                                                           PDInstallTypeSync, PDInstallTypeDowngrade,
                                                           PDInstallTypeIntentionalDowngrade};

OLBoolValue somePolicy(Chance& chance) {
    return chance.percent(12) ? OLBoolValue::explicitlyNo : OLBoolValue::unset;
}

Dictionary someMetadata(Chance& chance, std::string_view identifier) {
    Dictionary metadata;
    if (chance.percent(80)) {
        metadata.set("title", identifier);
    }
    if (chance.percent(50)) {
        metadata.set("zuvexId", "account");
    }
    if (chance.percent(50)) {
        metadata.set("bundleVersion", "3.0");
    }
    if (chance.percent(20)) {
        metadata.set("is-auto-download", true);
    }
    return metadata;
}

void addPlaceholder(State& state, const std::string& identifier) {
    Chance& chance = state.chance;
    auto& registry = state.world.registry;
    const auto placeholder = registry.addPlaceholder(identifier, chance.among(placeholderTypes));
    if (placeholder->type == PDInstallTypeRestore && chance.percent(60)) {
        placeholder->registeredAs = "TEAM." + identifier;
    }
    if (chance.percent(10)) {
        placeholder->kind = "System";
    }
    if (chance.percent(70)) {
        registry.addProgress(placeholder, chance.below(6), chance.below(4));
    }
    if (chance.percent(40)) {
        registry.prioritized.push_back(placeholder);
    }
}

void furnishServices(State& state) {
    Chance& chance = state.chance;
    auto& world = state.world;
    world.policy.settings = {{std::string(OLFeatureAppInstallationAllowed), somePolicy(chance)},
                             {std::string(OLFeatureAppRemovalAllowed), somePolicy(chance)}};
    world.errors.recoverableDomains = {"Net", "PendryError", std::string(TVInstallerErrorDomain)};
    world.deviceService.exists = chance.percent(95);
    world.deviceService.canCancel = chance.percent(90);
    world.deviceService.canPrioritize = chance.percent(90);
    world.store.completesAtOnce = chance.percent(70);
    world.registry.answersAtOnce = true;
    if (chance.percent(10)) {
        world.process.bundleIdentifier = "com.example.tool";
    }
    if (chance.percent(10)) {
        world.lowLevelInstaller.uninstalled = std::nullopt;
    } else if (chance.percent(60)) {
        world.lowLevelInstaller.uninstalled->set(std::string(chance.oneOf(state.identifiers)), Dictionary{});
    }
}

void furnishIcons(State& state) {
    Chance& chance = state.chance;
    Array icons;
    for (const std::string& identifier : state.identifiers) {
        if (chance.percent(60)) {
            icons.insert(icons.begin() + static_cast<std::ptrdiff_t>(chance.below(icons.size() + 1)), identifier);
        }
    }
    const std::size_t kind = chance.below(10);
    if (kind == 0) {
        state.world.screen.iconOrder = "no property list";
    } else if (kind > 2) {
        state.world.screen.iconOrder =
            std::string(PropertyListCodec().dataWithPropertyList(icons, PropertyListFormat::binary, nullptr)->bytes());
    }
}

Dictionary someRecord(State& state, bool& isUnsafe) {
    Chance& chance = state.chance;
    Dictionary record;
    isUnsafe = chance.oneIn(12);
    if (isUnsafe) {
        record.set("identifier", chance.among(unsafe));
    } else if (chance.oneIn(30)) {
        record.set("identifier", 7);
    } else {
        record.set("identifier", chance.oneOf(state.identifiers));
    }
    record.set("operation", chance.among(operations));
    if (chance.percent(70)) {
        record.set("version", "2.0");
    }
    if (chance.percent(50)) {
        record.set("name", "An App");
    }
    return record;
}

void stageApp(State& state, std::string_view identifier) {
    Chance& chance = state.chance;
    const std::string folder = paths::join(paths::stagingArea, identifier);
    if (chance.percent(70)) {
        state.world.files.putPlist(folder + "/Info.plist",
                                   Dictionary{{"BXBundleDisplayName", "Shown"}, {"UIWendralApp", chance.percent(50)}});
    }
    if (chance.percent(70)) {
        state.world.files.putPlist(folder + "/TamblinMetadata.plist", someMetadata(chance, identifier));
    }
    if (chance.percent(50)) {
        state.world.files.put(folder + "/TamblinArtwork", "artwork");
    }
}

} // namespace

void furnish(State& state) {
    Chance& chance = state.chance;
    auto& world = state.world;
    const std::size_t count = 1 + chance.below(library.size());
    state.identifiers.assign(library.begin(), library.begin() + static_cast<std::ptrdiff_t>(count));
    world.coordinators.any.enabled = chance.percent(50);
    state.tally.add(world.coordinators.any.enabled ? Event::lifeWithCoordination : Event::lifeWithoutCoordination);
    furnishServices(state);
    furnishIcons(state);
    for (const std::string& identifier : state.identifiers) {
        if (chance.percent(40)) {
            const auto app = world.registry.addInstalled(identifier);
            app->size = chance.below(1000);
            app->boundToDevice = chance.percent(20);
            state.installed.insert(identifier);
            if (chance.percent(30)) {
                world.files.putPlist(app->containerPath + "/TamblinMetadata.plist", someMetadata(chance, identifier));
            }
        }
        if (chance.percent(20)) {
            addPlaceholder(state, identifier);
        }
        if (chance.percent(50)) {
            world.backup.withRestoreData.emplace(identifier, 1);
        }
        if (chance.percent(5)) {
            world.coordinators.add(identifier)->creator = KXClientCorbin;
        }
    }
    if (chance.percent(50)) {
        world.files.putPlist(paths::lastSyncAppState, Array{"com.example.mail", "gone"});
    }
}

std::optional<Array> stageSync(State& state) {
    Chance& chance = state.chance;
    auto& files = state.world.files;
    files.removeItem(paths::stagingArea, nullptr); // what a sync that was cut short has left
    if (chance.oneIn(15)) {
        return std::nullopt; // nothing to do
    }
    files.putFolder(paths::stagingArea);
    const std::string listPath = paths::join(paths::stagingArea, "ApplicationsSync.plist");
    if (chance.percent(40)) {
        files.put(paths::join(paths::stagingArea, "SkellanIconState.plist"), chance.percent(80) ? "layout" : "");
    }
    Array list;
    for (std::size_t records = chance.below(13); records > 0; --records) {
        bool isUnsafe = false;
        Dictionary record = someRecord(state, isUnsafe);
        state.tally.add(Event::unsafePathOffered, isUnsafe ? 1 : 0);
        if (const auto identifier = record.string("identifier"); identifier && !isUnsafe) {
            stageApp(state, *identifier);
        }
        list.emplace_back(std::move(record));
    }
    if (chance.oneIn(20)) {
        list.insert(list.begin(), Value("no record"));
    }
    switch (chance.below(25)) {
    case 0: return std::nullopt; // no list
    case 1: files.put(listPath, ""); return std::nullopt;
    case 2: files.put(listPath, "no property list"); return std::nullopt;
    case 3: files.putPlist(listPath, Dictionary{}); return std::nullopt;
    default: files.putPlist(listPath, list); return list;
    }
}

void stageRestore(State& state) {
    Chance& chance = state.chance;
    auto& files = state.world.files;
    Dictionary info;
    const std::size_t unsafeAt = chance.below(4 * state.identifiers.size());
    for (std::size_t i = 0; i < state.identifiers.size(); ++i) {
        const std::string& identifier = state.identifiers[i];
        if (i == unsafeAt) {
            info.set(chance.among(unsafe), Dictionary{{"TamblinMetadata", Data("data")}});
            state.tally.add(Event::unsafePathOffered);
        }
        Dictionary app;
        if (chance.percent(90)) {
            const auto bytes = PropertyListCodec().dataWithPropertyList(someMetadata(chance, identifier),
                                                                        PropertyListFormat::binary, nullptr);
            app.set("TamblinMetadata", chance.percent(90) ? *bytes : Data("no property list"));
        }
        if (chance.percent(50)) {
            app.set("ApplicationSINF", Data("sinf"));
        }
        if (chance.percent(70)) {
            app.set("PlaceholderIcon", Data("icon"));
        }
        info.set(identifier, chance.percent(95) ? Value(std::move(app)) : Value(3));
    }
    if (chance.percent(90)) {
        files.putPlist(paths::restoreInfo, info);
    }
    if (chance.percent(60)) {
        Array automatic;
        Array intentional;
        for (const std::string& identifier : state.identifiers) {
            if (chance.percent(25)) {
                (chance.percent(50) ? automatic : intentional).emplace_back(identifier);
            }
        }
        files.putPlist(paths::demotedApps,
                       Dictionary{{"AutomaticDowngrades", automatic}, {"IntentionalDowngrades", intentional}});
    }
}

} // namespace appsync::simulation
