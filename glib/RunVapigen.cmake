# Writes lumora-glib.vapi from the GIR with vapigen, and lumora-glib.deps (the
# Vala packages it needs), into OUTPUT_DIR. vapigen only warns about what it
# cannot bind; here a warning fails the build, as the scanner's do.
# cmake -DVAPIGEN=... -DGIR=... -DOUTPUT_DIR=... -P RunVapigen.cmake
execute_process(
  COMMAND ${VAPIGEN} --library=lumora-glib --pkg=gio-2.0 --directory=${OUTPUT_DIR} ${GIR}
  RESULT_VARIABLE status
  OUTPUT_VARIABLE output
  ERROR_VARIABLE output)
# It ends with "Generation succeeded - N warning(s)"; each warning has a line
# "...: warning: ...".
if(NOT status EQUAL 0 OR output MATCHES "warning:" OR NOT output MATCHES "succeeded - 0 warning")
  message(FATAL_ERROR "vapigen failed (status ${status}):\n${output}")
endif()
file(WRITE ${OUTPUT_DIR}/lumora-glib.deps "gio-2.0\n")
