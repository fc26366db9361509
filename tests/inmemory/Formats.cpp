#include "tests/inmemory/Formats.h"

namespace appsync::inmemory {

namespace {

constexpr std::string_view table = R"(
%{public}@ already has a placeholder - skipping
%{public}@ getting dealloc'd with %lu outstanding RFX transfers!
%{public}@ install failed but was recoverable: %{public}@
%{public}@ install failed unrecoverably: %{public}@
%{public}@ install succeeded
%{public}@ is auto demoted: %d, manual demoted: %d, system app:%d - skipping
%{public}@ is currenlty demoted (manual:%d, auto:%d) - but will be installed as it's requested by client
%{public}@ is currenlty demoted (manual:%d, auto:%d) - skipping
%{public}@ is currenlty marked as to be ignored for download - skipping
%{public}@ is currenlty marked to be restored and will be handled by corbind - skipping
%{public}@ is system app placeholder - skipping
%{public}@ not installed, and no todo (found=%d pi=%d failed=%d) Marking as deleted
%{public}@ not installed, but is in our todo list. Not marking deleted
%{public}@ targeted for termination
Added app asset promise to coordinator for '%{public}@'
Added icon promise to placeholder for '%{public}@'
Added out of band user data promise for for %{public}@
App %{public}@ is already installed and will be updated.
App asset DRI for %{public}@ is set to %lu - nothing more for qrd to do
Assertion denied for %{public}@
Assertion not found for %{public}@, installing anyway...
Assertion succeeded for %{public}@
Asset %{public}@ (pretty=%{public}@, version=%{public}@) prepped with icon %{public}@, at %{public}@, meta at %{public}@, info at %{public}@, storePid=%lld, isRestore=%c
Asset promise is already satisfied for %{public}@
Assets already in progress (not returning these): %{public}@
Assets currently restoring: %{public}@
Called with success == YES but with %lu outstanding RFX transfers!
Can't create icon scratch dir! %{public}@
Cancelling asset promise for '%{public}@'
Cancelling asset sync for %{public}@
Cancelling coordinator for appBundleIdentifier:%{public}@
Cancelling coordinator with error %{public}@ for %{public}@
Cancelling placeholder for appBundleIdentifier:%{public}@
Cannot cancel %{public}@ as it's already cancelled %d OR the call is not supported
Cannot prioritize %{public}@ as it's not supported
Changing %{public}@ from %{public}@ to %{public}@
Coordinator for %{public}@ has a valid install options
Coordinator for %{public}@ has a valid placeholder promise
Coordinator for %{public}@ has a valid user data promise
Copied icon from %{public}@ to %{public}@ with error %{public}@ for '%{public}@', sizeOnDisk:%llu
Copying icon from %{public}@ to %{public}@ failed: %{public}@
Couldn't save image file to %{public}@
Created %s coordinator %{public}@ (createIfNotExisting:%d, existingApp:%d) for %{public}@ with error %{public}@
Created app directory for '%{public}@' at %{public}@ with err=%{public}@
Created placeholder %{public}@ for '%{public}@' of type %lu
Created restore coordinator %{public}@ (createIfNotExisting:%d) for %{public}@ with error %{public}@
Demoted Apps: %{public}@
Download path recovered for %{public}@ but the file is missing: %{public}@
Enqueue install request for %{public}@
Error %{public}@ adding app asset promise at %{public}@ to '%{public}@'
Error %{public}@ adding icon promise to placeholder for '%{public}@'
Error %{public}@ adding out of band data promise for '%{public}@'
Error %{public}@ adding placeholder promise to coordinator for '%{public}@'
Error %{public}@ setting KXClientCorbin to satisfy app data promise for '%{public}@'
Error %{public}@ setting ODR asset promise for '%{public}@'
Error %{public}@ setting SINF data for '%{public}@'
Error %{public}@ setting attributes on placeholder for '%{public}@'
Error %{public}@ setting install options for '%{public}@'
Error %{public}@ setting install options on coordinator for '%{public}@'
Error %{public}@ setting placeholder attributes for '%{public}@'
Error %{public}@ setting placeholder configuration as complete for '%{public}@'
Error %{public}@ setting placeholder promise for '%{public}@'
Error %{public}@ setting store metadata for '%{public}@'
Error %{public}@ setting store metadata on placeholder for '%{public}@'
Error '%{public}@' creating restore coordinator for %{public}@
Error creating asset promise for '%{public}@'
Failed to update utimes of "%s": %s
Finished install for %{public}@
Found placeholder for bundle %{public}@
Got install type=%{public}@ state=%{public}@ phase=%{public}@ for %{public}@
Grabbing assertion for %{public}@
IC returned %s coordinator %{public}@ (createIfNotExisting:%d, existingApp:%d, creatorIdentifier=%lu) for %{public}@ with error %{public}@ - Will not perform install/update for this bundle
Ignoring invalid path: %{public}@
Install coordination is enabled - not calling cancelApplicationRestoreWithBundleID for %{public}@
Installed Placeholder app from path %{public}@: %{public}@ [%{public}@ %{public}@] [isWendral: %{public}@]
Installing synced asset %{public}@
No install progress found for asset identifier %{public}@
No placeholder for asset identifier %{public}@
No restore data exists for %{public}@
Not creating a placeholder app for %{public}@ because we already have one
Not processing kQRAssetPartApplicationData for restore asset %{public}@ as coordination is enabled
Not processing restore asset %{public}@ as coordination is enabled
Not requesting app asset for %{public}@
Not returning FNProgress * for %{public}@ as kestrow is enabled
Notifying SK we are %s syncing
Performing install for %{public}@
Placeholder app install failed from path %{public}@: %{public}@ [%{public}@ %{public}@] [isWendral: %{public}@]
Placeholder to add icon promise is nil for '%{public}@'
Prioritize %{public}@
Prioritize %{public}@ finished with error %{public}@
Re-enqueue installation request for %{public}@
Received file at %{public}@
Recovered download path for %{public}@ at %{public}@
Restore data exists for %{public}@
Returning %{public}@ progress for %{public}@
Returning zuvex ID set: %{public}@
Satisfying asset promise for %{public}@
Setting state for outstanding RFX loading phase of asset %{public}@ to %{public}@
SystemAppPlaceholders %{public}@
Uh Oh...can't send notification to SK:%d
Uninstall %{public}@ = %c
Uninstall of %{public}@ failed.
Uninstall of %{public}@ with install coordinator succeeded wiht error %{public}@.
Uninstalled %{public}@ %s install co-ordinator with error %{public}@ with status %d
Uninstalling app using PD %{public}@
Uninstalling app using install co-ordinator %{public}@
Uninstalling placeholder %{public}@
Unknown error %d getting assertion for %{public}@
Updated DeviceBasedKPL state for : %{public}@ to %d
Updating download progress: %f install progress:%f for %{public}@
Will retry installation of %{public}@ in %d seconds
added install options for %{public}@
added placeholder promise for %{public}@
added placeholder promise to coordinator for %{public}@
asset transfer ended withsuccess: %c
asset transfer succeeded for %{public}@
clearing is-auto-download value for %{public}@
clearing uninstalled apps: %{public}@
coordinator for %{public}@ has a placeholder promise
coordinator for %{public}@ has an ODR app asset promise
coordinator for %{public}@ has an app asset promise
coordinator for %{public}@ has install options
coordinatorDidCompleteSuccessfully for %{public}@ with error %{public}@
coordinatorDidInstallPlaceholder for %{public}@ with error %{public}@
creating placeholder for '%{public}@'. info.plist=%{public}@
failed to copy tamblin metadata. err=%{public}@
failed to create app directory for '%{public}@'. err=%{public}@
failed to create placeholder info at %{public}@ with info %{public}@
failed to parse tamblin app restore info. err=%{public}@
failed to parse tamblin metadata for '%{public}@'. err=%{public}@
failed to process app restore info for '%{public}@'. tamblinMetadataDictionary=%{public}@
failed to read tamblin app restore info. err=%{public}@
failed to transfer asset %{public}@. err=%{public}@, recoverable=%d
finished getting installed assets toDoList:%{public}@, uninstalled apps %{public}@, last synced apps%{public}@
finished transferring %lf for %{public}@
found %ld apps using %lld bytes (%lld purgeable)
icon data for '%{public}@' was writen to %{public}@ with status:%d fileSize:%llu
icon for %{public}@ at %{public}@ has a size of %llu
lastly %{public}@
mismatched ZuvexID keys for %{public}@: %{public}@ vs %{public}@
no TamblinMetadata for '%{public}@' - ignoring
no icon data for '%{public}@'
no tamblin restore info for '%{public}@' - skipping
not asking backup manager to cancel app restore for %{public}@ as install coordination is enabled
not setting install phase finished for %{public}@ as coordination is enabled
not uninstalling restore asset %{public}@ as install coordination is enabled
outstandingAssetTransfers preExistingPlaceHolders %{public}@, idsWeWant %{public}@
outstandingAssetTransfers starting with todoList %{public}@
performing %llu deletions
placeholder already exists for '%{public}@' - skiping'
plist %{public}@
prioritize %{public}@
prioritized proxies %{public}@ paused proxies %{public}@
processing app install for bundle %{public}@ finished with status %d error %{public}@
processing app install for bundle '%{public}@', title %{public}@ assetplist %{public}@, version %{public}@ with install coordination
processing app restore for %{public}@ finished with status %d error %{public}@
processing app restore for demoted app %{public}@ finished with status %d error %{public}@
processing app restore for demoted bundle '%{public}@' with install coordination
processing app restore for non demoted bundle '%{public}@' with install coordination
processing app restore info for '%{public}@'
processing tamblin restore info for '%{public}@' demotionStatus :%lu
promiseDidBeginFulfillmentWithIdentifier %lu
reconcileRestoreOfType %d
refreshReceiptsWithCompletionBlock failed: %{public}@
set %{public}@ attributes on placeholder for %{public}@
set %{public}@ placeholder attributes for %{public}@
set KXClientCorbin to satisfy app asset promise for %{public}@
set ODR asset promise to install coordinator for %{public}@
set SINF data on placeholder for %{public}@
set install options on coordinator for %{public}@
set placeholder configuration as complete for %{public}@
set placeholder configuration complete for %{public}@
set store metadata on placeholder for %{public}@
skipping %{public}@ - its not a restore and app installation is disabled
starting to reconcile sync with new anchor %{public}@
sync ended with success: %c
transfer for asset %{public}@ ended with success %c error %{public}@ existingApp:%d
unexpected type for %{public}@
unknown ZuvexID for %{public}@ (plist at %{public}@)
)";

} // namespace

const std::set<std::string_view>& formatsWithConversions() {
    static const std::set<std::string_view> formats = [] {
        std::set<std::string_view> found;
        std::string_view rest = table.substr(1);
        while (!rest.empty()) {
            found.insert(rest.substr(0, rest.find('\n')));
            rest.remove_prefix(rest.find('\n') + 1);
        }
        return found;
    }();
    return formats;
}

} // namespace appsync::inmemory
