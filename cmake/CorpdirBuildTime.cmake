# Build date and time that the log names: SOURCE_DATE_EPOCH, else the last commit's time, so that two
# builds of one source are the same. Sets CORPDIR_BUILD_DATE and CORPDIR_BUILD_TIME (UTC).
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(_epoch $ENV{SOURCE_DATE_EPOCH})
else()
  execute_process(COMMAND git log -1 --format=%ct
                  WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
                  OUTPUT_VARIABLE _epoch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT _epoch)
  set(_epoch 0)
endif()
set(_saved_epoch "$ENV{SOURCE_DATE_EPOCH}")
set(ENV{SOURCE_DATE_EPOCH} ${_epoch})
string(TIMESTAMP CORPDIR_BUILD_DATE "%b %d %Y" UTC)
string(TIMESTAMP CORPDIR_BUILD_TIME "%H:%M:%S" UTC)
if(_saved_epoch STREQUAL "")
  unset(ENV{SOURCE_DATE_EPOCH})
else()
  set(ENV{SOURCE_DATE_EPOCH} ${_saved_epoch})
endif()
