# The sources of the library, subsystem by subsystem, of the run-state stand-in, of the
# daemon-side record decoder and of the DLT building blocks: written once, for the library's
# build and the fuzzing build.
get_filename_component(LOGFERRY_SOURCE_ROOT ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)

# logferry_source_list(<variable> <folder> <files...>): the files, under the folder of the tree.
function(logferry_source_list variable folder)
  list(TRANSFORM ARGN PREPEND ${LOGFERRY_SOURCE_ROOT}/${folder}/ OUTPUT_VARIABLE files)
  set(${variable} ${files} PARENT_SCOPE)
endfunction()

logferry_source_list(LOGFERRY_SYSTEM_SOURCES src/system guards.cpp robust_mutex.cpp system_lib.cpp)
logferry_source_list(LOGFERRY_MESSAGE_SOURCES src/message serialize.cpp validation.cpp)
logferry_source_list(LOGFERRY_CHANNEL_SOURCES src/channel
  channel_buffers.cpp channel_segment.cpp liveness.cpp priority_buffer.cpp)
logferry_source_list(LOGFERRY_LISTENER_SOURCES src/listener listener_list.cpp listener_segment.cpp)
# The library's runtime and the free-function streams: one object library.
logferry_source_list(_runtime src/runtime
  control_requests.cpp lifecycle.cpp log_filters.cpp receiver_thread.cpp registration.cpp state.cpp)
logferry_source_list(_streams src/streams log_stream.cpp)
set(LOGFERRY_FRONTEND_SOURCES ${_runtime} ${_streams})

logferry_source_list(LOGFERRY_JX_OSAL_SOURCES platform/jx_osal jx_osal.cpp)
logferry_source_list(_decoder src/wire decoder.cpp)
logferry_source_list(_message_view daemon/collector message_view.cpp)
set(LOGFERRY_DECODER_SOURCES ${_decoder} ${_message_view})
logferry_source_list(LOGFERRY_DLT_SOURCES daemon/dlt dlt_message.cpp dlt_control.cpp dlt_file.cpp dlt_tcp.cpp)
