# Installs the build tree into a temporary prefix and imports the installed
# Python package from there (PYTHONPATH = the prefix's Python path), with the
# command that the README gives: publish, then filter. Python runs with -P, so
# that the working directory (the build tree's package beside it) is not on
# its path.
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
set(package ${WORK_DIR}/prefix/${PYTHON_DIR}/endpointregistry)
foreach(file __init__.py __init__.pyi py.typed)
  if(NOT EXISTS ${package}/${file})
    message(FATAL_ERROR "the installed package lacks ${file}")
  endif()
endforeach()
file(GLOB module ${package}/_core*.so)
if(NOT module)
  message(FATAL_ERROR "the installed package lacks its compiled module")
endif()
string(RANDOM LENGTH 8 ALPHABET abcdefghijklmnopqrstuvwxyz suffix)
set(script "import endpointregistry as er; e = er.publish('a', 'b', 'py-${suffix}'); print(er.filter('py-${suffix}'))")
execute_process(COMMAND ${CMAKE_COMMAND} -E env PYTHONPATH=${WORK_DIR}/prefix/${PYTHON_DIR} ${PYTHON} -P -c "${script}"
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(rc OR NOT out STREQUAL "[('a', 'b')]\n")
  message(FATAL_ERROR "the installed package did not run: ${rc} '${out}' ${err}")
endif()
# Loaded from the prefix, not from the build tree.
execute_process(COMMAND ${CMAKE_COMMAND} -E env PYTHONPATH=${WORK_DIR}/prefix/${PYTHON_DIR} ${PYTHON} -P -c
                        "import endpointregistry; print(endpointregistry._core.__file__)"
                OUTPUT_VARIABLE where OUTPUT_STRIP_TRAILING_WHITESPACE)
string(FIND "${where}" "${WORK_DIR}/prefix/" at)
if(NOT at EQUAL 0)
  message(FATAL_ERROR "imported from elsewhere: ${where}")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
