// The frame around each call into the plug-in.
#pragma once

#include "plugin/client/Paths.h"
#include "tests/simulation/Invariants.h"

namespace appsync::simulation {

/// Makes a call within a frame of its own and checks what must hold at its end.
template <class Call> void inCall(State& state, std::string name, std::string_view identifier, Call&& call) {
    Frame frame;
    frame.name = std::move(name);
    frame.identifier = identifier;
    if (state.world.journal.isRecording()) {
        state.world.journal.add("---- " + frame.name + " " + frame.identifier);
    }
    state.frames.push_back(&frame);
    call(frame);
    checkAfterCall(state, frame);
    state.frames.pop_back();
}

// What the plug-in must make of untrusted text, in words of the simulation's own.

inline bool staysBelow(const std::optional<std::string_view>& identifierOrPath) {
    return identifierOrPath && identifierOrPath->find("/..") == std::string_view::npos;
}
inline bool namesAFile(std::string_view identifier) {
    return identifier != "." && identifier != ".." && identifier.find('/') == std::string_view::npos;
}

/// The identifiers of the to-do list's records, in their order.
inline Array identifiersIn(const std::optional<Array>& toDoList) {
    Array identifiers;
    for (const Value& record : toDoList ? *toDoList : Array{}) {
        const Value* identifier = record.dictionary() ? record.dictionary()->find("identifier") : nullptr;
        identifiers.push_back(identifier ? *identifier : Value());
    }
    return identifiers;
}

/// Takes what the files hold for what they must hold, after a call that replaces them or that may not have ended.
inline void resyncFiles(State& state) {
    const auto list = state.world.files.plistAt(paths::toDoList);
    state.toDoList = list && list->array() ? std::optional(*list->array()) : std::nullopt;
    state.waitingForData.clear();
    const auto restoreState = state.world.files.plistAt(paths::restoreState);
    for (const auto& [identifier, versions] : restoreState ? *restoreState->dictionary() : Dictionary{}) {
        state.waitingForData.emplace(identifier.view());
    }
    state.filesDisturbed = false;
}

} // namespace appsync::simulation
