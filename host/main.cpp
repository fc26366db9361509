// The command line of `qrd`.
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/WrongUse.h"
#include "host/view/Print.h"
#include "propertylist/ListMemory.h"

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>

using namespace appsync::host;

namespace {

/// Collects the commands and remembers which one was asked for.
class CommandLine {
  public:
    CommandLine()
        : _app("Syncs applications to a device.\n\nA device is a folder; a library is a folder of app archives.") {
        _app.name("qrd");
        _app.require_subcommand(1);
        _app.set_version_flag("--version", std::string("qrd ") + QRD_VERSION, "Print the version and exit");
        _addDevice();
        _addSync();
        _addReset();
        _addRestore();
        _addPerson();
        _addQuestions();
        _addTools();
        _group("Bring apps to a device", {"device", "sync", "status", "prioritize", "cancel"});
        _group("Back up and restore", {"backup", "restore", "store"});
        _group("Use the device", {"launch", "quit", "demote", "uninstall", "reset"});
        _group("Look at a device", {"apps", "screen", "watch", "log", "inventory", "metrics", "accounts"});
        _group("Make and check files", {"pack", "plist"});
        _app.footer("Exit codes: 0 all done, 1 some app failed, 2 wrong use, 3 the device is in use (try again), "
                    "4 the device root cannot be used, 5 anything else, 130 interrupted, 129 hung up, 141 nobody reads "
                    "the output, 143 terminated.");
    }

    /// `words` are those behind the program's name.
    ExitCode run(std::vector<std::string> words) {
        if (!words.empty() && words.front() == "help") { // "help sync" is "sync --help"
            words.erase(words.begin());
            if (const std::size_t named = namedCommand(_app, words).words; named < words.size()) {
                return _refuse(words, CLI::ExtrasError({words[named]}));
            }
            words.emplace_back("--help");
        }
        try {
            _app.parse(std::vector<std::string>(words.rbegin(), words.rend())); // it takes them from the back
        } catch (const CLI::ParseError& problem) {
            if (problem.get_exit_code() == 0) { // the help or the version was asked for
                (void)_app.exit(problem);
                return ExitCode::done;
            }
            return _refuse(words, problem);
        }
        return _chosen();
    }

  private:
    ExitCode _refuse(const std::vector<std::string>& words, const CLI::Error& problem) const {
        printLine(std::cerr, describeWrongUse(_app, words, problem));
        return ExitCode::wrongUse;
    }

    template <class Arguments>
    void _choose(CLI::App* command, Arguments& arguments, ExitCode (*perform)(const Arguments&)) {
        command->callback(
            [this, &arguments, perform] { _chosen = [&arguments, perform] { return perform(arguments); }; });
    }

    static void _addJson(CLI::App* command, JsonOutput& json) {
        command
            ->add_flag("--json", json,
                       "Print the result as JSON; --json=lines prints each event, too, an object a line")
            ->transform([](const std::string& word) -> std::string {
                if (word != "true" && word != "lines") { // the flag alone is true
                    throw CLI::ValidationError("'" + word + "' is no form; write --json or --json=lines");
                }
                return std::to_string(static_cast<int>(word == "true" ? JsonOutput::object : JsonOutput::lines));
            });
    }

    static CLI::Option* _addTrace(CLI::App* command, std::string& file) {
        return command->add_option("--trace", file, "Write a timeline of all that is done, as trace-event JSON")
            ->type_name("FILE");
    }

    /// What a person wants to do with these commands; the help shows them together.
    void _group(const char* purpose, std::initializer_list<const char*> commands) {
        for (const char* command : commands) {
            _app.get_subcommand(command)->group(purpose);
        }
    }

    void _addDevice() {
        auto* device = _app.add_subcommand("device", "Make a device")->require_subcommand(1);
        auto* create = device->add_subcommand("create", "Make a folder into a new device");
        create->add_option("DIR", _create.device, "The folder; it must be empty or not exist")->required();
        create->add_flag("--no-coordination", _create.noCoordination,
                         "Without the install coordinator: the plug-in installs by itself");
        create->add_flag("--forbid-install", _create.forbidInstall, "Policy: no app may be installed");
        create->add_flag("--forbid-removal", _create.forbidRemoval, "Policy: no app may be removed");
        _choose(create, _create, createDevice);
    }

    void _addReset() {
        auto* command = _app.add_subcommand("reset", "Remove the apps on their way and all that the plug-in keeps");
        command->add_option("DIR", _reset.device, "The device")->required();
        command->add_flag("--yes", _reset.yes, "Do not ask first");
        command->add_option("--plugin", _reset.plugin, "The plug-in bundle, instead of the one beside this program");
        _choose(command, _reset, reset);
    }

    void _addSync() {
        auto* command = _app.add_subcommand("sync", "Bring a library's apps to a device");
        command->add_option("DIR", _sync.device, "The device")->required();
        command->add_option("--library", _sync.library, "The folder of app archives")->required();
        auto* installs = command->add_option("--install", _sync.install,
                                             "Install this app only (bundle identifier or name; may be repeated). "
                                             "Without it, every app that the device lacks or has in an older version");
        command->add_option("--remove", _sync.remove, "Remove this app (bundle identifier or name; may be repeated)");
        command->add_flag("--reinstall", _sync.reinstall, "Send what --install names also when it is there already")
            ->needs(installs);
        command->add_flag(
            "--downgrade", _sync.downgrade,
            "Replace a newer version by the library's. Without it the newer one stays, which is a failure "
            "for an app that --install names");
        auto* dryRun = command->add_flag("--dry-run", _sync.dryRun,
                                         "Say what would be done, do nothing, and exit as the sync would");
        _addJson(command, _sync.json);
        command->add_option("--bandwidth", _sync.bandwidth, "Send no faster than this, for example 10MB/s");
        _addTrace(command, _sync.trace)->excludes(dryRun);
        command->add_option("--plugin", _sync.plugin, "The plug-in bundle, instead of the one beside this program");
        _choose(command, _sync, sync);
    }

    void _addRestore() {
        auto* saving = _app.add_subcommand("backup", "Keep a device's apps, icons and data in a folder");
        saving->add_option("DIR", _backup.device, "The device")->required();
        saving->add_option("-o,--output", _backup.output, "The folder to make")->required();
        saving->add_option("--plugin", _backup.plugin, "The plug-in bundle, instead of the one beside this program");
        _choose(saving, _backup, backup);

        auto* restoring = _app.add_subcommand("restore", "Bring a backup's apps back onto a device");
        restoring->add_option("DIR", _restore.device, "The device")->required();
        restoring->add_option("--from", _restore.from, "The folder that `backup` has made")->required();
        restoring->add_option("--type", _restore.type, "The restore type that the plug-in is told (default 2)");
        _addJson(restoring, _restore.json);
        _addTrace(restoring, _restore.trace);
        restoring->add_option("--plugin", _restore.plugin,
                              "The plug-in bundle, instead of the one beside this program");
        _choose(restoring, _restore, restore);

        auto* bringing = _app.add_subcommand("store", "Bring the apps that a restore has left to the store");
        bringing->add_option("DIR", _store.device, "The device")->required();
        bringing->add_option("--catalogue", _store.catalogue, "The store's folder of app archives")->required();
        _addJson(bringing, _store.json);
        _addTrace(bringing, _store.trace);
        _choose(bringing, _store, store);
    }

    void _addPerson() {
        auto* launching = _app.add_subcommand("launch", "Start an app, as a tap on its icon would");
        launching->add_option("DIR", _launch.device, "The device")->required();
        launching->add_option("ID", _launch.app, "The app's bundle identifier")->required();
        launching->add_flag("--busy", _launch.busy,
                            "The app holds itself busy: it cannot be ended, and so not updated");
        _choose(launching, _launch, launch);

        auto* quitting = _app.add_subcommand("quit", "End a running app, unless it is busy");
        quitting->add_option("DIR", _quit.device, "The device")->required();
        quitting->add_option("ID", _quit.app, "The app's bundle identifier")->required();
        _choose(quitting, _quit, quit);

        auto* removing = _app.add_subcommand("uninstall", "Remove an app, as a person on the device would");
        removing->add_option("DIR", _uninstall.device, "The device")->required();
        removing->add_option("ID", _uninstall.app, "The app's bundle identifier")->required();
        _choose(removing, _uninstall, uninstall);

        auto* demoting = _app.add_subcommand("demote", "Let go of an app and keep its data");
        demoting->add_option("DIR", _demote.device, "The device")->required();
        demoting->add_option("ID", _demote.app, "The app's bundle identifier")->required();
        demoting->add_flag("--automatic", _demote.automatic, "As the system does it, not a person");
        _choose(demoting, _demote, demote);

        auto* first = _app.add_subcommand("prioritize", "Have the running sync bring an app first");
        first->add_option("DIR", _control.device, "The device")->required();
        first->add_option("ID", _control.app, "The app's bundle identifier")->required();
        _choose(first, _control, prioritize);

        auto* taking = _app.add_subcommand("cancel", "Take an app's install in the running sync back");
        taking->add_option("DIR", _control.device, "The device")->required();
        taking->add_option("ID", _control.app, "The app's bundle identifier")->required();
        _choose(taking, _control, cancel);

        auto* status = _app.add_subcommand("status", "Show what the running sync does");
        status->add_option("DIR", _status.device, "The device")->required();
        status->add_flag("--follow", _status.follow, "Show each change until the sync ends");
        status->add_flag("--json", _status.json, "Print JSON; with --follow an object a line");
        _choose(status, _status, showSyncStatus);
    }

    void _addQuestions() {
        auto* apps = _app.add_subcommand("apps", "List the apps of a device");
        apps->add_option("DIR", _apps.device, "The device")->required();
        apps->add_flag("--json", _apps.json, "Print JSON");
        _choose(apps, _apps, listApps);

        const auto addQuery = [this](const char* name, const char* help, ExitCode (*perform)(const QueryArguments&)) {
            auto* query = _app.add_subcommand(name, help);
            query->add_option("DIR", _query.device, "The device")->required();
            query->add_flag("--json", _query.json, "Print JSON");
            query->add_option("--plugin", _query.plugin, "The plug-in bundle, instead of the one beside this program");
            _choose(query, _query, perform);
        };
        addQuery("inventory", "Tell which apps were deleted on the device since the last sync", showInventory);
        addQuery("metrics", "Tell how many apps there are and how much space they take", showMetrics);
        addQuery("accounts", "List the accounts under which the apps were bought", showAccounts);

        auto* log = _app.add_subcommand("log", "Show what a device has logged");
        log->add_option("DIR", _log.device, "The device")->required();
        log->add_flag("--transactions", _log.transactions, "The install transaction log instead of the messages");
        log->add_option("--app", _log.app, "Only what names this app (bundle identifier)");
        log->add_option("--level", _log.level, "Only messages of this level and worse: default or error");
        log->add_option(
            "--since", _log.since,
            "Only from this time on: 14:05, 2026-11-21, 2026-11-21T14:05:30, or an age such as 10m, 2h, 1d");
        log->add_option("--tail", _log.tail, "Only the last N")->type_name("N")->check([](const std::string& text) {
            return text.find_first_not_of("0123456789") == std::string::npos ? ""
                                                                             : "'" + text + "' is no number of lines";
        });
        log->add_flag("--follow", _log.follow,
                      "Go on with what is still to come, until Ctrl-C; first the last 10, or as --tail says");
        log->add_flag("--json", _log.json, "Print JSON; with --follow an object a line");
        _choose(log, _log, showLog);

        auto* screen = _app.add_subcommand("screen", "Draw a device's home screen");
        screen->add_option("DIR", _screen.device, "The device")->required();
        screen->add_option("-o,--output", _screen.output, "The PNG file to write")->required();
        _choose(screen, _screen, drawScreen);

        auto* watching = _app.add_subcommand("watch", "Show a device in the browser, while it is used");
        watching->add_option("DIR", _watch.device, "The device")->required();
        watching->add_option("--port", _watch.port, "The port of 127.0.0.1 to serve it at; any free one without it")
            ->type_name("N")
            ->check([](const std::string& text) {
                constexpr unsigned long last = 65535;
                const bool isNumber =
                    !text.empty() && text.size() <= 5 && text.find_first_not_of("0123456789") == std::string::npos;
                return isNumber && std::stoul(text) <= last ? "" : "'" + text + "' is no port, a number up to 65535";
            });
        watching->add_flag("--open", _watch.opensBrowser, "Open the browser, too");
        _choose(watching, _watch, watch);
    }

    void _addTools() {
        auto* packing =
            _app.add_subcommand("pack", "Make an app archive of a folder, or a folder to begin an app with");
        auto* folder = packing->add_option("APPDIR", _pack.app, "A folder <Name>.app, or one that holds it");
        packing->add_option("-o,--output", _pack.output,
                            "The archive to write; with --init the folder to make NAME.app in, instead of this one");
        packing->add_option("--init", _pack.newApp, "Make a folder NAME.app to begin an app with, and pack nothing")
            ->type_name("NAME")
            ->excludes(folder);
        packing->parse_complete_callback([this] { _requireForPacking(); });
        _choose(packing, _pack, pack);

        auto* plist = _app.add_subcommand("plist", "Look at and convert property lists")->require_subcommand(1);
        auto* print = plist->add_subcommand("print", "Print a property list as XML");
        print->add_option("FILE", _plist.file, "The property list")->required();
        _choose(print, _plist, printPlist);
        auto* convert = plist->add_subcommand("convert", "Convert a property list to binary, or with --xml to XML");
        convert->add_option("FILE", _plist.file, "The property list")->required();
        convert->add_option("-o,--output", _plist.output, "The file to write, instead of FILE itself");
        convert->add_flag("--xml", _plist.toXml, "To XML");
        _choose(convert, _plist, convertPlist);
        auto* check = plist->add_subcommand("check", "Say whether a file is a property list, and if not, why");
        check->add_option("FILE", _plist.file, "The file")->required();
        _choose(check, _plist, checkPlist);
    }

    /// What is needed depends on what is made.
    void _requireForPacking() const {
        for (const auto& [name, value] : {std::pair("APPDIR", &_pack.app), std::pair("--output", &_pack.output)}) {
            if (!_pack.newApp && value->empty()) {
                throw CLI::RequiredError(name);
            }
        }
    }

    CLI::App _app;
    std::function<ExitCode()> _chosen;
    DeviceCreateArguments _create;
    SyncArguments _sync;
    LaunchArguments _launch;
    QuitArguments _quit;
    ControlArguments _control;
    StatusArguments _status;
    BackupArguments _backup;
    RestoreArguments _restore;
    StoreArguments _store;
    DemoteArguments _demote;
    UninstallArguments _uninstall;
    ResetArguments _reset;
    QueryArguments _query;
    AppsArguments _apps;
    LogArguments _log;
    ScreenArguments _screen;
    WatchArguments _watch;
    PackArguments _pack;
    PlistArguments _plist;
};

/// A stream that is closed would become the next file that is opened, and what is printed would be written into that.
void reserveStandardStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) < 0) {
            (void)::open("/dev/null", O_RDWR); // takes the lowest free number, which is this one
        }
    }
}

/// What has been printed may not have arrived.
int checkedOutput(int code) {
    std::cout.flush();
    const bool isWritten = std::fflush(stdout) == 0 && std::cout.good();
    if (isWritten || code != 0) {
        return code;
    }
    if (errno == EPIPE) {
        return static_cast<int>(ExitCode::brokenPipe);
    }
    return static_cast<int>(fail("not all of the output could be written: " + std::string(std::strerror(errno))));
}

} // namespace

int main(int count, char** words) {
    reserveStandardStreams();
    std::signal(SIGPIPE, SIG_IGN); // a write fails instead
    appsync::keepListMemory();     // each step of a sync reads and writes the whole to-do list
    try {
        return checkedOutput(static_cast<int>(CommandLine().run({words + 1, words + count})));
    } catch (const std::exception& failure) {
        return static_cast<int>(fail(failure.what()));
    }
}
