#include "host/commands/BringApps.h"

#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "host/OpenDevice.h"
#include "host/commands/TraceFile.h"
#include "host/control/Interrupt.h"
#include "host/view/SyncReport.h"
#include "host/view/SyncView.h"

#include <nlohmann/json.hpp>

#include <iostream>
#include <string>

namespace appsync::host {

namespace {

void tellPerson(const SyncReport& report, const BringWords& words) {
    if (!report.apps.empty()) {
        printTable(std::cout, report);
    } else if (!report.interrupted) {
        printLine(std::cout, words.nothing);
    }
    if (report.isDryRun) {
        printAmounts(std::cout, report);
    }
}

ExitCode tellOutcome(const SyncReport& report, JsonOutput json, const BringWords& words) {
    switch (json) {
    case JsonOutput::none:
        if (!report.failure) {
            tellPerson(report, words);
        }
        std::cout.flush(); // before what stands on the other stream
        printNotes(std::cerr, report);
        break;
    case JsonOutput::object: printJson(std::cout, toJson(report), 2); break;
    case JsonOutput::lines: printEvent(std::cout, {{"event", "ended"}, {"report", toJson(report)}}); break;
    }
    if (report.failure) {
        return fail(reasonOf(report.failure));
    }
    if (report.interrupted) {
        return fail(std::string("interrupted; ") + words.again + " to go on", Interrupt::exitCode());
    }
    return report.allDone() ? ExitCode::done : ExitCode::someAppFailed;
}

} // namespace

ExitCode bringApps(const BringWhere& where, const BringWords& words, const Bring& bring) {
    auto trace = TraceFile::open(where.trace);
    if (!trace) {
        return fail(reasonOf(trace.error()));
    }
    const auto opened = openDevice(where.device, words.purpose, trace->timeline());
    if (!opened) {
        return fail(opened.error());
    }
    device::Device& device = **opened;
    device.coordinator().waitUntilIdle();
    const Interrupt interrupt;
    SyncView view(std::cout, SyncView::styleFor(std::cout, where.json));
    auto report = bring(device, view, interrupt);
    if (!report) {
        return fail(reasonOf(report.error()), ExitCode::wrongUse);
    }
    if (!report->isDryRun) {
        trace->finish(*report);
    }
    return tellOutcome(*report, where.json, words);
}

} // namespace appsync::host
