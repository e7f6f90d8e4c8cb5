# Compiles consumers of the public header with -Werror: the one that keeps
# every result must compile, and each one that discards the result of
# publish, of a listing or of a construction must be refused with the
# compiler's "ignoring return value" diagnostic.
# Inputs: CXX (the compiler), INCLUDE_DIR, SOURCE_DIR (this folder).
function(compile source outcome output)
  execute_process(
    COMMAND ${CXX} -std=c++20 -Wall -Wextra -Werror -fsyntax-only -I${INCLUDE_DIR} ${SOURCE_DIR}/${source}
    RESULT_VARIABLE result
    OUTPUT_VARIABLE out
    ERROR_VARIABLE out)
  set(${outcome} ${result} PARENT_SCOPE)
  set(${output} "${out}" PARENT_SCOPE)
endfunction()

compile(keeps_results.cpp result out)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "keeps_results.cpp does not compile:\n${out}")
endif()

foreach(source IN ITEMS discards_publish.cpp discards_listing.cpp discards_construction.cpp)
  compile(${source} result out)
  if(result EQUAL 0)
    message(FATAL_ERROR "${source} compiled although it discards a result")
  endif()
  if(NOT out MATCHES "ignoring return value|ignoring temporary created by a constructor declared with 'nodiscard'")
    message(FATAL_ERROR "${source} was refused for another reason:\n${out}")
  endif()
  message(STATUS "${source}: refused as expected")
endforeach()
