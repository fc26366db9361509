// Making an app: a folder to begin with, and the archive that a library takes.
#include "archive/AppInArchive.h"
#include "archive/InstallerError.h"
#include "desktop/ArchivePacker.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/apps/AppCheck.h"
#include "host/apps/NewApp.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "propertylist/Codec.h"
#include "values/BundleIdentifier.h"

#include <iostream>

namespace appsync::host {

namespace {

ExitCode makeApp(const std::string& folder, std::string name) {
    if (name.ends_with(bundleExtension)) { // as its folder is named
        name.resize(name.size() - bundleExtension.size());
    }
    if (!isAppName(name)) {
        return fail("'" + name + "' cannot be an app's name: " + std::string(bundleIdentifierRule) + ".",
                    ExitCode::wrongUse);
    }
    PropertyListCodec propertyLists;
    const auto made = makeNewApp(folder, name, propertyLists);
    if (!made) {
        return fail(reasonOf(made.error()));
    }
    printLine(std::cout, "made " + *made);
    printLine(std::cerr, "note: pack it with `qrd pack " + shellWord(*made) + " -o " + name + ".zip`");
    return ExitCode::done;
}

/// Says all that is wrong with an app.
ExitCode refuse(const ErrorPtr& notPacked, const std::vector<std::string>& problems, bool isApp) {
    if (notPacked) {
        fail(reasonOf(notPacked));
    }
    for (const std::string& problem : problems) {
        fail(problem);
    }
    const bool isRefused = !notPacked || notPacked->domain() == TVInstallerErrorDomain;
    return !isApp ? ExitCode::wrongUse : isRefused ? ExitCode::someAppFailed : ExitCode::failed;
}

} // namespace

ExitCode pack(const PackArguments& arguments) {
    if (arguments.newApp) {
        return makeApp(arguments.output, *arguments.newApp);
    }
    PropertyListCodec propertyLists;
    const std::string app = desktop::findAppFolder(arguments.app);
    const auto problems = app.empty() ? std::vector<std::string>() : findAppProblems(app, propertyLists);
    auto packed = desktop::PackedApp::make(arguments.app, arguments.output, propertyLists);
    if (!packed || !problems.empty()) {
        return refuse(packed.error(), problems, !app.empty());
    }
    if (const auto kept = packed->keep(); !kept) {
        return fail(reasonOf(kept.error()));
    }
    printLine(isStandardOutput(arguments.output) ? std::cerr : std::cout, "packed " + arguments.output);
    return ExitCode::done;
}

} // namespace appsync::host
