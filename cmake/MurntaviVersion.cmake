# Build identity: tag from `git describe`, falling back to the project version when the
# tree is no git checkout or has no tag; commit, branch, date with time-zone offset.
find_package(Git QUIET)
set(MURNTAVI_GIT_TAG "${PROJECT_VERSION}")
set(MURNTAVI_GIT_COMMIT "unknown")
set(MURNTAVI_GIT_BRANCH "unknown")
if(GIT_FOUND AND EXISTS "${PROJECT_SOURCE_DIR}/.git")
    execute_process(COMMAND ${GIT_EXECUTABLE} describe --tags --dirty
        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE _tag
        RESULT_VARIABLE _rc OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(_rc EQUAL 0 AND _tag)
        set(MURNTAVI_GIT_TAG "${_tag}")
    endif()
    execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse --short HEAD
        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE _commit
        RESULT_VARIABLE _rc OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(_rc EQUAL 0 AND _commit)
        set(MURNTAVI_GIT_COMMIT "${_commit}")
    endif()
    execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse --abbrev-ref HEAD
        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE _branch
        RESULT_VARIABLE _rc OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(_rc EQUAL 0 AND _branch)
        set(MURNTAVI_GIT_BRANCH "${_branch}")
    endif()
endif()
execute_process(COMMAND date "+%Y-%m-%d %H:%M:%S %z" OUTPUT_VARIABLE MURNTAVI_BUILD_DATE
    OUTPUT_STRIP_TRAILING_WHITESPACE)

# The shared library's full version comes from the tag when it starts with a version.
set(MURNTAVI_LIB_VERSION "${PROJECT_VERSION}")
if(MURNTAVI_GIT_TAG MATCHES "^([0-9]+)\\.([0-9]+)(\\.([0-9]+))?")
    set(_patch "${CMAKE_MATCH_4}")
    if(_patch STREQUAL "")
        set(_patch 0)
    endif()
    set(MURNTAVI_LIB_VERSION "${CMAKE_MATCH_1}.${CMAKE_MATCH_2}.${_patch}")
endif()
message(STATUS "murntavi ${MURNTAVI_GIT_TAG} (${MURNTAVI_GIT_COMMIT} on ${MURNTAVI_GIT_BRANCH}), library version ${MURNTAVI_LIB_VERSION}")
