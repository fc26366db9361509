#include "host/commands/Outcome.h"

#include "host/OpenDevice.h"
#include "host/control/Interrupt.h"
#include "host/view/SyncReport.h"

#include <nlohmann/json.hpp>

#include <iostream>
#include <string>

namespace appsync::host {

namespace {

void tellPerson(const SyncReport& report, const OutcomeWords& words) {
    if (!report.apps.empty()) {
        printTable(std::cout, report);
    } else if (!report.interrupted) {
        printLine(std::cout, words.nothing);
    }
    if (report.isDryRun) {
        printAmounts(std::cout, report);
    }
}

} // namespace

ExitCode tellOutcome(const SyncReport& report, JsonOutput json, const OutcomeWords& words) {
    switch (json) {
    case JsonOutput::none:
        if (report.failure == nullptr) {
            tellPerson(report, words);
        }
        std::cout.flush(); // before what stands on the other stream
        printNotes(std::cerr, report);
        break;
    case JsonOutput::object: printJson(std::cout, toJson(report), 2); break;
    case JsonOutput::lines: printEvent(std::cout, {{"event", "ended"}, {"report", toJson(report)}}); break;
    }
    if (report.failure != nullptr) {
        return fail(reasonOf(report.failure));
    }
    if (report.interrupted) {
        return fail(std::string("interrupted; ") + words.again + " to go on", Interrupt::exitCode());
    }
    return report.allDone() ? ExitCode::done : ExitCode::someAppFailed;
}

} // namespace appsync::host
