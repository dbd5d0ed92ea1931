# Writes the version header that zordctl and atsw-sim print for --version:
# the project's version and, when the sources are a git checkout, what
# `git describe` says of them. Run at every build, so that the text follows
# new commits and local changes; the header is rewritten only when its text
# changes. A source tree without .git (an unpacked copy, a package build
# inside another checkout) or a machine without git gives the version alone.
#
#   cmake -DSOURCE_DIR=... -DOUTPUT=... -DVERSION=... [-DGIT=...] -P version.cmake
cmake_minimum_required(VERSION 3.25)
set(describe "")
if(GIT AND EXISTS "${SOURCE_DIR}/.git")
  # --no-optional-locks: a build must not hold the index lock while someone commits.
  execute_process(COMMAND "${GIT}" --no-optional-locks describe --always --dirty
    WORKING_DIRECTORY "${SOURCE_DIR}" RESULT_VARIABLE failed
    OUTPUT_VARIABLE describe OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(failed)
    set(describe "")
  endif()
endif()
set(text "${VERSION}")
if(describe)
  string(APPEND text " (${describe})")
endif()
file(CONFIGURE OUTPUT "${OUTPUT}" @ONLY CONTENT
  "// Written by cmake/version.cmake at build time.\n#pragma once\n#define ZORD_VERSION_TEXT \"@text@\"\n")
