# Copies the libraries that the start programs load into one folder, each
# with the run path "$ORIGIN", as an installation lays them out: the start
# figures then measure what a user's program pays, not the build tree's
# longer search. Run as: cmake -DDIR=<folder> -DFILES=<a;b;...> -P stage_libraries.cmake
file(MAKE_DIRECTORY "${DIR}")
foreach(library IN LISTS FILES)
  get_filename_component(name "${library}" NAME)
  file(COPY_FILE "${library}" "${DIR}/${name}" ONLY_IF_DIFFERENT)
  file(READ_ELF "${DIR}/${name}" RUNPATH runpath)
  if(runpath)
    file(RPATH_SET FILE "${DIR}/${name}" NEW_RPATH "$ORIGIN")
  endif()
endforeach()
