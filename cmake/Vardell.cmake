# Settings and functions that every folder's CMakeLists.txt uses.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_AUTOMOC ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

find_program(CCACHE ccache)
if(CCACHE)
  # Without these words it keeps nothing that was compiled with precompiled headers.
  set(CMAKE_CXX_COMPILER_LAUNCHER
    "${CMAKE_COMMAND}" -E env CCACHE_SLOPPINESS=pch_defines,time_macros "${CCACHE}")
  add_compile_options(-fpch-preprocess)
endif()

add_compile_options(-Wall -Wextra -Wshadow -Wnon-virtual-dtor -Wimplicit-fallthrough -Werror)
add_compile_definitions(QT_NO_CAST_TO_ASCII QT_NO_FOREACH QT_NO_KEYWORDS)
if(VARDELL_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

execute_process(COMMAND id -u OUTPUT_VARIABLE VARDELL_UID OUTPUT_STRIP_TRAILING_WHITESPACE)

# vardell_library(NAME SOURCES file... [PUBLIC lib...] [PRIVATE lib...])
function(vardell_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_include_directories(${name} PUBLIC "${PROJECT_SOURCE_DIR}")
  target_link_libraries(${name} PUBLIC ${arg_PUBLIC} PRIVATE ${arg_PRIVATE})
endfunction()

# What every test includes, compiled once for all of them. _REENTRANT, which Avahi's flags bring to
# some, must then be defined for all.
function(vardell_test_headers)
  set(source "${CMAKE_BINARY_DIR}/test_headers.cpp")
  if(NOT EXISTS "${source}")
    file(WRITE "${source}" "")
  endif()
  add_library(test_headers OBJECT "${source}")
  target_link_libraries(test_headers PRIVATE Qt6::Core GTest::gtest)
  target_compile_definitions(test_headers PRIVATE _REENTRANT)
  target_precompile_headers(test_headers PRIVATE
    <gtest/gtest.h> <QByteArray> <QDateTime> <QDir> <QFile> <QJsonArray> <QJsonDocument>
    <QJsonObject> <QString> <QStringList> <QTemporaryDir> <QVariant> <algorithm> <chrono>
    <functional> <map> <memory> <optional> <string> <vector>)
endfunction()

# vardell_test(NAME SOURCES file... LIBS lib... [DESKTOP] [SHARDS n] [LOCK resource...]
#              [DEPENDS target...] [TIMEOUT seconds])
# One GoogleTest program, one CTest test, or n that share its cases and run side by side. DESKTOP runs
# it under tools/desktop: its own X server, window manager, session and system bus, and Avahi on a
# loopback interface of its own. DEPENDS are programs that it starts.
function(vardell_test name)
  cmake_parse_arguments(arg "DESKTOP" "TIMEOUT;SHARDS" "SOURCES;LIBS;LOCK;DEPENDS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LIBS} Qt6::Core GTest::gtest_main)
  target_precompile_headers(${name} REUSE_FROM test_headers)
  target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}")
  target_compile_definitions(${name} PRIVATE
    _REENTRANT VARDELL_SOURCE_DIR="${PROJECT_SOURCE_DIR}" VARDELL_BIN_DIR="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 300)
  endif()
  if(arg_DEPENDS)
    add_dependencies(${name} ${arg_DEPENDS})
  endif()
  if(NOT arg_SHARDS)
    set(arg_SHARDS 1)
  endif()
  math(EXPR last "${arg_SHARDS} - 1")
  foreach(shard RANGE ${last})
    set(test ${name})
    if(arg_SHARDS GREATER 1)
      set(test ${name}_${shard})
    endif()
    if(arg_DESKTOP)
      add_test(NAME ${test} COMMAND "${PROJECT_SOURCE_DIR}/tools/desktop"
        --dir "${CMAKE_BINARY_DIR}/desktop/${test}" -- $<TARGET_FILE:${name}>)
    else()
      add_test(NAME ${test} COMMAND ${name})
    endif()
    set_tests_properties(${test} PROPERTIES TIMEOUT ${arg_TIMEOUT}
      ENVIRONMENT "GTEST_TOTAL_SHARDS=${arg_SHARDS};GTEST_SHARD_INDEX=${shard}")
    # Only root gets ports of its own on such a desktop.
    if(arg_DESKTOP AND NOT VARDELL_UID EQUAL 0)
      list(APPEND arg_LOCK port49308)
    endif()
    if(arg_LOCK)
      set_tests_properties(${test} PROPERTIES RESOURCE_LOCK "${arg_LOCK}")
    endif()
  endforeach()
endfunction()
