// What an interrupted sync leaves on a device for nobody.
#pragma once

namespace appsync::device {
class Device;
}

namespace appsync::host {

/// Removes received files that nobody will install, unfinished ones too, and placeholder bundles that nobody
/// registered; on a device without coordination also the placeholders of installs that will not go on, so that their
/// apps are asked for again, and the receipts that such a sync has not brought up to date. Files whose place the
/// plug-in has noted in its restore state stay. To be called before a sync, when no install runs. What cannot be
/// removed now is left for the next time.
void clearLeftovers(device::Device& device);
/// Of that, the received files alone. Also to be called after a sync: an app that a person cancels just when its
/// transfer ends has a file that nobody takes.
void clearReceivedFiles(device::Device& device);

/// Of that, the placeholder bundles alone.
void clearPlaceholderBundles(device::Device& device);

} // namespace appsync::host
