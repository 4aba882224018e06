# The sources of the library, subsystem by subsystem, of the run-state stand-in and of the
# daemon-side record decoder: written once, for the library's build and the fuzzing build.
get_filename_component(LOGFERRY_SOURCE_ROOT ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)

set(LOGFERRY_SYSTEM_SOURCES
  ${LOGFERRY_SOURCE_ROOT}/src/system/guards.cpp
  ${LOGFERRY_SOURCE_ROOT}/src/system/robust_mutex.cpp
  ${LOGFERRY_SOURCE_ROOT}/src/system/system_lib.cpp)
set(LOGFERRY_MESSAGE_SOURCES
  ${LOGFERRY_SOURCE_ROOT}/src/message/serialize.cpp
  ${LOGFERRY_SOURCE_ROOT}/src/message/validation.cpp)
set(LOGFERRY_CHANNEL_SOURCES
  ${LOGFERRY_SOURCE_ROOT}/src/channel/channel_buffers.cpp
  ${LOGFERRY_SOURCE_ROOT}/src/channel/channel_segment.cpp
  ${LOGFERRY_SOURCE_ROOT}/src/channel/liveness.cpp
  ${LOGFERRY_SOURCE_ROOT}/src/channel/priority_buffer.cpp)
set(LOGFERRY_LISTENER_SOURCES
  ${LOGFERRY_SOURCE_ROOT}/src/listener/listener_list.cpp
  ${LOGFERRY_SOURCE_ROOT}/src/listener/listener_segment.cpp)
set(LOGFERRY_FRONTEND_SOURCES
  ${LOGFERRY_SOURCE_ROOT}/src/runtime/control_requests.cpp
  ${LOGFERRY_SOURCE_ROOT}/src/runtime/lifecycle.cpp
  ${LOGFERRY_SOURCE_ROOT}/src/runtime/log_filters.cpp
  ${LOGFERRY_SOURCE_ROOT}/src/streams/log_stream.cpp
  ${LOGFERRY_SOURCE_ROOT}/src/runtime/receiver_thread.cpp
  ${LOGFERRY_SOURCE_ROOT}/src/runtime/registration.cpp
  ${LOGFERRY_SOURCE_ROOT}/src/runtime/state.cpp)

set(LOGFERRY_JX_OSAL_SOURCES ${LOGFERRY_SOURCE_ROOT}/platform/jx_osal/jx_osal.cpp)
set(LOGFERRY_DECODER_SOURCES ${LOGFERRY_SOURCE_ROOT}/src/wire/decoder.cpp
  ${LOGFERRY_SOURCE_ROOT}/daemon/collector/message_view.cpp)
set(LOGFERRY_DLT_SOURCES ${LOGFERRY_SOURCE_ROOT}/daemon/dlt/dlt_message.cpp ${LOGFERRY_SOURCE_ROOT}/daemon/dlt/dlt_control.cpp
  ${LOGFERRY_SOURCE_ROOT}/daemon/dlt/dlt_file.cpp ${LOGFERRY_SOURCE_ROOT}/daemon/dlt/dlt_tcp.cpp)
