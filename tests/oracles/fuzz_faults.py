"""Faults that the expectations of the fuzz targets must notice, each on a kept input."""
from fault import Fault, replay

HUGE = "std::string(std::size_t{8} << 20, 'x')"  # more bytes than any small file of an archive may have
DESCRIBED = '*target = std::move(*content);'


def described(member):
    return f'*target = target == &description.{member} ? std::optional(Data({HUGE})) : std::move(*content);'


FAULTS = [
    # The device's way of an archive.
    Fault('nothing is written outside of the container', 'device/archive/Extraction.cpp',
          '    Result<void> _unpack() {\n',
          '    Result<void> _unpack() {\n'
          '        const Descriptor beside(::openat(_container, "../beside", O_CREAT | O_WRONLY, 0600));\n',
          replay('archive', 'app')),
    Fault('an app that was accepted is there', 'device/archive/Extraction.cpp',
          '_application.bundleName = _app.bundleName;', '_application.bundleName = "Other.app";',
          replay('archive', 'app')),
    # The desktop's way of an archive.
    Fault('a refusal names its archive', 'desktop/AppArchive.cpp',
          'auto app = readAppArchive(file->descriptor(), propertyLists, Refusal(path));',
          'auto app = readAppArchive(file->descriptor(), propertyLists, Refusal("it"));',
          replay('desktop_archive', 'nothing')),
    Fault('the Info.plist is bounded', 'desktop/AppArchive.cpp',
          'description.iconName = _iconName(*info);',
          f'description.iconName = _iconName(*info);\n        description.infoPlist = Data({HUGE});',
          replay('desktop_archive', 'pictures')),
    Fault('the metadata is bounded', 'desktop/AppArchive.cpp', DESCRIBED, described('metadata'), replay('desktop_archive')),
    Fault('the artwork is bounded', 'desktop/AppArchive.cpp', DESCRIBED, described('artwork'), replay('desktop_archive')),
    Fault('the icon is bounded', 'desktop/AppArchive.cpp', DESCRIBED, described('icon'), replay('desktop_archive')),
    Fault('an icon has its name', 'desktop/AppArchive.cpp',
          '        return description;\n    }\n', '        description.iconName.reset();\n        return description;\n    }\n',
          replay('desktop_archive', 'pictures')),
    Fault('the icon stands beside the Info.plist', 'desktop/AppArchive.cpp',
          "!name->ends_with(\".png\") || name->find('/') != std::string_view::npos", '!name->ends_with(".png")',
          replay('desktop_archive', 'icon-below')),
    Fault('an app has an identifier that can name it', 'desktop/AppArchive.cpp',
          '    if (!isBundleIdentifier(app.identifier)) {', '    app.identifier += "/..";\n    if (app.identifier.empty()) {',
          replay('desktop_archive', 'app')),
    Fault("the archive's size is known", 'desktop/AppArchive.cpp',
          '    app->size = app->stamp.size;\n', '', replay('desktop_archive', 'app')),
    # A backup's lists.
    Fault('an identifier that names a path is refused', 'host/backup/BackupFolder.cpp',
          'if (!isBundleIdentifier(app.identifier)) {', 'if (app.identifier.empty()) {', replay('backup_folder')),
    Fault('an app has a name', 'host/backup/BackupFolder.cpp',
          ', .name = std::string(identifier)}', '}', replay('backup_folder', 'apps')),
    Fault('what is restored is a dictionary', 'host/backup/BackupFolder.cpp',
          '    app.entry = std::move(entry);\n', '', replay('backup_folder', 'apps')),
    Fault('a list that is not used is told', 'host/backup/BackupFolder.cpp',
          '        content.problems.push_back(errorText(list.error()) + " No app counts as demoted.");\n', '',
          replay('backup_folder', 'nothing')),
    # A request on the control socket.
    Fault('a request can be sent on', 'host/control/ControlSocket.cpp',
          '    if (!request.app.empty()) {', '    if (request.app.empty()) {', replay('control_request', 'cancel')),
    Fault('its command stays', 'host/control/ControlSocket.cpp',
          '{"command", request.command}', '{"command", "status"}', replay('control_request', 'cancel')),
    # The order of the icons.
    Fault('every item is placed once', 'plugin/homescreen/IconOrder.cpp',
          '&& placed.insert(*identifier).second) {', ') {', replay('icon_order', 'order')),
    Fault('no item is placed twice', 'plugin/homescreen/IconOrder.cpp',
          '            result.push_back(*item);', '            result.push_back("com.example.b");',
          replay('icon_order', 'order')),
    # What is printed.
    Fault('it is valid UTF-8', 'text/Printable.cpp',
          'from.substr(0, length) : replacementCharacter;', 'from.substr(0, length) : std::string_view("\\xFF");',
          replay('names', 'no-utf8')),
    Fault('nothing in it steers a terminal', 'text/Printable.cpp',
          'return c == nonJoiner || c == joiner;', 'return true;', replay('names', 'directions')),
    Fault('it has as many lines as it should', 'text/Printable.cpp',
          "            out += ' ';", "            out += '\\n';", replay('names', 'escapes')),
    Fault('its length is bounded', 'text/Printable.cpp', 'if (count == limit) {', 'if (text.empty()) {',
          replay('names', 'long')),
    Fault('JSON is ASCII', 'host/view/Print.cpp',
          "json.dump(indent, ' ', true,", "json.dump(indent, ' ', false,", replay('names', 'wide')),
    Fault('JSON is exact', 'host/view/SyncReport.cpp',
          '{"name", app.name}', '{"name", printable(app.name)}', replay('names', 'escapes')),
    Fault('the home screen can be drawn', 'device/drawing/ScreenText.cpp',
          'pango_cairo_show_layout(_context, layout.get());', 'cairo_restore(_context);', replay('names', 'no-utf8')),
    # Property lists.
    Fault('there is a value or an error', 'propertylist/Codec.cpp',
          '    if (error != nullptr) {', '    if (error != nullptr && !reading) {', replay('binary_list', 'head')),
    Fault('a list that cannot be written has an error', 'propertylist/Codec.cpp',
          '    if (error != nullptr) {', '    if (error != nullptr && reading) {', replay('binary_list', 'late-date')),
    Fault('what was written can be read', 'propertylist/xml/XmlWriter.cpp',
          '"<false/>"', '"<no/>"', replay('xml_list', 'every-kind')),
    Fault('a round trip changes nothing', 'propertylist/xml/XmlWriter.cpp',
          'appendNumber(*value.integer());', 'appendNumber(*value.integer() - 1);', replay('xml_list', 'every-kind')),
    Fault('what is read as XML is well-formed', 'propertylist/xml/XmlScanner.cpp',
          'if (isAt("]]>")) {', 'if (isAt("]]>]]>")) {', replay('xml_list', 'end-of-character-data-in-a-text')),
    # The plug-in's lists.
    Fault('a bad list does not end the sync', 'plugin/client/ReconcileSync.cpp',
          '        _log.message("Nothing to do from Tamblin");',
          '        _log.message("Nothing to do from Tamblin");\n        return false;', replay('to_do_list', 'garbage')),
    Fault('what is asked for has a name', 'plugin/planning/OutstandingAssetTransfers.cpp',
          '        identifier, client.supportedDataclasses().front(), prettyName);',
          '        "", client.supportedDataclasses().front(), prettyName);', replay('to_do_list', 'list')),
    Fault('a restore is never refused', 'plugin/placeholders/RestoreInfo.cpp',
          '        _processTamblinRestoreInfo();\n    }\n',
          '        if (!_processTamblinRestoreInfo()) {\n            return false;\n        }\n    }\n',
          replay('restore_info', 'array')),
    Fault('the information is put aside', 'plugin/placeholders/RestoreInfo.cpp',
          '    archiveRestoreInfo(_platform.files, _log);\n', '', replay('restore_info', 'apps')),
    Fault('the information is kept', 'plugin/placeholders/RestoreInfo.cpp',
          'moveItem(paths::restoreInfo, paths::processedRestoreInfo, &error)', 'removeItem(paths::restoreInfo, &error)',
          replay('restore_info', 'apps')),
    # The paths that the plug-in asks for.
    Fault('no path leads upwards', 'plugin/planning/OutstandingAssetTransfers.cpp',
          '        if (!paths::isSafe(identifier)) {', '        if (!identifier) {', replay('to_do_list', 'list')),
    Fault("only the plug-in's own folders are touched", 'plugin/planning/OutstandingAssetTransfers.cpp',
          'files.removeItem(paths::icons, nullptr);',
          'files.removeItem("/var/mobile/Library/ApplicationSyncs", nullptr);', replay('to_do_list', 'list')),
    Fault("nothing is put outside of the plug-in's own folders", 'plugin/coordination/InstallPreparation.cpp',
          'copyItem(*_iconPath, destination, &error)', 'copyItem(*_iconPath, "/Icon.png", &error)',
          replay('to_do_list', 'list')),
]
