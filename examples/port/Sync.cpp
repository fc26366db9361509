// Seventh: a first sync. It stages a to-do list as a desktop would, has the plug-in bring its one app to "INSTALLED",
// and prints what it did.
//
// Usage: port_sync BUNDLE
#include "Device.h"
#include "PlugIn.h"
#include "platform/host/Places.h"

#include <iostream>

namespace {

using namespace port;

const std::string publicStaging(appsync::paths::publicStaging);
const std::string staging(appsync::paths::stagingArea);
const std::string workArea = "/var/mobile/Library/ApplicationSync/TamblinStuff";
const std::string app = "com.example.notes";

void say(const std::string& line) {
    std::cout << line << '\n';
}

void put(Device& device, const std::string& path, const Value& list) {
    ErrorPtr error;
    const auto bytes = device.propertyLists.dataWithPropertyList(list, PropertyListFormat::binary, &error);
    const std::string folder = path.substr(0, path.rfind('/'));
    if (!bytes || !device.files.createDirectory(folder, true, std::nullopt, &error) ||
        !device.files.writeFileAtomically(path, bytes->bytes(), &error)) {
        throw std::runtime_error(errorText(error));
    }
}

Dictionary infoOfApp() {
    return {{"BXBundleIdentifier", app}, {"BXBundleVersion", "1.0"}, {"BXBundleDisplayName", "Notes"}};
}

/// The desktop's part.
void stage(Device& device) {
    put(device, staging + "/ApplicationsSync.plist",
        Array{Dictionary{{"identifier", app}, {"operation", "install"}, {"version", "1.0"}, {"name", "Notes"}}});
    put(device, staging + "/" + app + "/Info.plist", infoOfApp());
    say("staged " + app + " 1.0");
}

/// Opens the sync; false when it cannot go on.
bool open(QRClient& client) {
    const std::string anchor = client.currentSyncAnchor();
    ErrorPtr error;
    const bool isOpen = client.prepareForSyncWithHostAnchor_progressCallback_error(anchor, {}, &error) &&
                        client.reconcileSync_withNewAnchor_progressCallback_error(nullptr, anchor, {}, &error);
    say(isOpen ? "opened the sync" : "could not open the sync: " + errorText(error));
    return isOpen;
}

/// Fetches what the plug-in asks for: here it only has to be put where received files stand.
void transfer(Device& device, QRClient& client, const QRAssetPtr& asset) {
    say("the plug-in asks for " + asset->identifier + " " + asset->version().value_or("of no version"));
    for (const double fraction : {0.5, 1.0}) {
        asset->downloadProgress = fraction;
        client.assetTransfer_updatedProgress(asset, fraction);
    }
    const std::string received = "Received/" + asset->identifier;
    put(device, publicStaging + "/" + received, infoOfApp()); // the archives of this device
    asset->path = received;
    asset->completedAssetParts = kQRAssetPartApplicationPackage;
    client.assetTransfer_succeeded_withError(asset, true, nullptr);
}

/// What the to-do list says of the app now.
std::string operation(Device& device) {
    const auto bytes = device.files.readFile(workArea + "/ApplicationsSync.plist", nullptr);
    const auto list = bytes ? device.propertyLists.propertyListWithData(bytes->bytes(), nullptr) : std::nullopt;
    for (const Value& record : list && list->array() ? *list->array() : Array{}) {
        if (record.dictionary() && record.dictionary()->string("identifier") == app) {
            return std::string(record.dictionary()->string("operation").value_or("none"));
        }
    }
    return "not there";
}

/// The steps of the install, from the plug-in's own messages: "<identifier>|<message>".
void sayWhatThePlugInDid(Device& device) {
    for (const std::string& message : device.log.messages()) {
        const std::string text = message.substr(message.find('|') + 1);
        for (const char* step : {"Installed Placeholder", "Changing", "Enqueue", "Performing", "Finished install"}) {
            if (text.starts_with(step)) {
                say("the plug-in: " + text);
            }
        }
    }
}

bool sync(Device& device, QRClient& client) {
    stage(device);
    if (!open(client)) {
        return false;
    }
    (void)client.installedAssets(); // which apps have gone from the device; the desktop would be told
    for (const QRAssetPtr& asset : client.outstandingAssetTransfers()) {
        transfer(device, client, asset);
    }
    client.assetTransferEndedWithSuccess(true); // waits for the installs
    client.syncEndedWithSuccess(true);
    sayWhatThePlugInDid(device);
    const auto proxy = device.registry.applicationProxyForIdentifier_placeholder(app, false);
    say("the to-do list says " + operation(device));
    say("the registry has " + (proxy ? app + " " + proxy->bundleVersion().value_or("") : "no " + app));
    return operation(device) == "INSTALLED" && proxy;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "Usage: port_sync BUNDLE\n";
        return 2;
    }
    Device device;
    try {
        const auto client = loadClient(argv[1], device.platform());
        if (sync(device, *client)) {
            return 0;
        }
    } catch (const std::exception& exception) {
        std::cerr << "port_sync: " << exception.what() << '\n';
    }
    for (const std::string& message : device.log.messages()) {
        std::cerr << message << '\n';
    }
    return 1;
}
