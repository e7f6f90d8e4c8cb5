# Installs the build tree into a temporary prefix, then configures, builds and
# runs a consumer project that finds it with find_package().
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
set(flags "")
if(SANITIZERS)
  # A sanitized library needs a sanitized program to load it.
  set(flags "-fsanitize=${SANITIZERS}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/consumer -B ${WORK_DIR}/build -G Ninja
                        -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix "-DCMAKE_CXX_FLAGS=${flags}"
                        RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer configure failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer build failed: ${rc}")
endif()
execute_process(COMMAND ${WORK_DIR}/build/consumer RESULT_VARIABLE rc OUTPUT_VARIABLE out)
if(rc OR NOT out STREQUAL "empty\n")
  message(FATAL_ERROR "consumer run failed: ${rc} '${out}'")
endif()
# The pkg-config file describes the same library.
file(GLOB_RECURSE pcfile ${WORK_DIR}/prefix/*/endpointregistry.pc)
file(READ ${pcfile} pc)
if(NOT pc MATCHES "Libs: -L\\$\\{libdir\\} -lendpointregistry")
  message(FATAL_ERROR "pkg-config file lacks the library: ${pc}")
endif()
