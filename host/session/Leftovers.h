// What an interrupted sync leaves on a device for nobody.
#pragma once

#include <functional>
#include <set>
#include <string>

namespace appsync::device {
class Device;
}

namespace appsync::host {

/// Identifiers.
using Apps = std::set<std::string, std::less<>>;

/// What goes on.
struct GoingOn {
    Apps waiting;  // whose placeholder stays though no sync brings them now
    Apps archives; // the names of received files that a later transfer goes on with
};

/// Removes received files that nobody will install, and placeholder bundles that nobody registered, and takes back the
/// installs of `takenBack`. On a device without coordination it also removes the placeholders of other installs that a
/// sync has begun, so that their apps are asked for again, and the receipts that such a sync has not brought up to
/// date. Files whose place the plug-in has noted in its restore state stay. To be called before a sync, when no install
/// runs. What cannot be removed now is left for the next time.
void clearLeftovers(device::Device& device, const GoingOn& goingOn, const Apps& takenBack);
/// Of that, the received files alone. Also to be called after a sync: an app that a person cancels just when its
/// transfer ends has a file that nobody takes.
void clearReceivedFiles(device::Device& device, const GoingOn& goingOn);

/// Of that, the placeholder bundles alone.
void clearPlaceholderBundles(device::Device& device);

} // namespace appsync::host
