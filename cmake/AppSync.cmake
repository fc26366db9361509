# How everything here is compiled.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

find_program(CCACHE ccache)
if(CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

find_package(Threads REQUIRED)

add_library(appsync_options INTERFACE)
target_include_directories(appsync_options INTERFACE $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>
                                                     $<INSTALL_INTERFACE:include/appsync>)
target_compile_features(appsync_options INTERFACE cxx_std_20)
target_compile_options(appsync_options INTERFACE $<BUILD_INTERFACE:-Wall;-Wextra;-Wpedantic;-Wconversion;-Werror>)
target_link_libraries(appsync_options INTERFACE Threads::Threads)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(appsync_options INTERFACE $<BUILD_INTERFACE:-Wthread-safety>)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # It finds overlaps in the library's own string concatenation that cannot be there.
    target_compile_options(appsync_options INTERFACE $<BUILD_INTERFACE:-Wno-restrict>)
endif()
# Of sources that are compiled together (IS_JOINED) one may hide the names of another, and what is local to one is no
# file's own; clang-tidy looks at each by itself.
target_compile_options(appsync_options INTERFACE $<BUILD_INTERFACE:$<$<NOT:$<BOOL:$<TARGET_PROPERTY:IS_JOINED>>>:-Wshadow>>)
if(APPSYNC_UNITY STREQUAL all AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(appsync_options INTERFACE $<BUILD_INTERFACE:-Wno-subobject-linkage>)
endif()
if(APPSYNC_SANITIZE)
    target_compile_options(appsync_options INTERFACE -fsanitize=${APPSYNC_SANITIZE} -fno-omit-frame-pointer
                                                     -fno-sanitize-recover=all)
    target_link_options(appsync_options INTERFACE -fsanitize=${APPSYNC_SANITIZE})
endif()

if(APPSYNC_FUZZ AND APPSYNC_FUZZ_ENGINE STREQUAL "-fsanitize=fuzzer")
    target_compile_options(appsync_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# appsync_library(NAME SOURCES... [LINK LIBS...]): a static library of one folder.
function(appsync_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_link_libraries(${name} PUBLIC appsync_options ${ARG_LINK})
    if(APPSYNC_UNITY STREQUAL all) # most of the time goes to reading the same headers
        set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8 IS_JOINED ON)
    endif()
endfunction()

# appsync_test(NAME SOURCES... [LINK LIBS...]): a test program, each of its tests known to ctest.
function(appsync_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE appsync_options ${ARG_LINK} GTest::gtest GTest::gtest_main)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
