# What the libraries are made of. Each is compiled once, for its static and its shared form.

# Where `#include <vek/HEADER>` finds the tree's headers, as it finds the installed ones.
set(VEK_HEADER_FOLDER ${PROJECT_BINARY_DIR}/include)

# vek_link_headers(files...)
function(vek_link_headers)
  file(REMOVE_RECURSE ${VEK_HEADER_FOLDER}/vek)
  file(MAKE_DIRECTORY ${VEK_HEADER_FOLDER}/vek)
  foreach(header ${ARGN})
    get_filename_component(name ${header} NAME)
    file(CREATE_LINK ${header} ${VEK_HEADER_FOLDER}/vek/${name} SYMBOLIC)
  endforeach()
endfunction()

# vek_add_library(NAME SOURCES files INCLUDES folders of public headers, its own and those below
#                 [ON the library below] [PUBLIC what its headers need] [PRIVATE what its sources need])
# makes vekNAME, the static library; vekNAME_shared, where VEK_SHARED is on; and vek::NAME, which is
# the one of both that BUILD_SHARED_LIBS chooses. The sources are those of vekNAME_objects.
function(vek_add_library name)
  cmake_parse_arguments(LIB "" "ON" "SOURCES;INCLUDES;PUBLIC;PRIVATE" ${ARGN})
  set(objects vek${name}_objects)
  add_library(${objects} OBJECT ${LIB_SOURCES})
  target_compile_features(${objects} PRIVATE cxx_std_17)
  # Nobody replaces single functions of the libraries: calls within them may be direct, and inlined.
  target_compile_options(${objects} PRIVATE -fno-semantic-interposition)
  target_include_directories(${objects} PRIVATE ${LIB_INCLUDES})
  target_link_libraries(${objects} PRIVATE ${LIB_PUBLIC} ${LIB_PRIVATE})
  if(LIB_ON)
    target_link_libraries(${objects} PRIVATE vek::${LIB_ON})
  endif()
  set_target_properties(${objects} PROPERTIES CXX_EXTENSIONS OFF POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)

  if(PROJECT_IS_TOP_LEVEL OR NOT BUILD_SHARED_LIBS)
    add_library(vek${name} STATIC $<TARGET_OBJECTS:${objects}>)
    vek_set_library("" ${name})
  endif()
  if(VEK_SHARED)
    vek_add_shared(${name})
  endif()
  if(BUILD_SHARED_LIBS)
    add_library(vek::${name} ALIAS vek${name}_shared)
  else()
    add_library(vek::${name} ALIAS vek${name})
  endif()
endfunction()

# The rest is for vek_add_library, and uses its arguments.
macro(vek_add_shared name)
  set(map ${PROJECT_SOURCE_DIR}/CMAKE/vek${name}.map)
  add_library(vek${name}_shared SHARED $<TARGET_OBJECTS:${objects}>)
  vek_set_library(_shared ${name})
  target_link_options(vek${name}_shared PRIVATE -Wl,--version-script=${map})
  if(NOT VEK_SANITIZE)  # whose own symbols come with the program
    target_link_options(vek${name}_shared PRIVATE -Wl,--no-undefined)
  endif()
  set_target_properties(vek${name}_shared PROPERTIES OUTPUT_NAME vek${name} LINK_DEPENDS ${map}
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} INSTALL_RPATH "$ORIGIN")
endmacro()

# form: what the names of the targets end in.
macro(vek_set_library form name)
  set(library vek${name}${form})
  target_compile_features(${library} PUBLIC cxx_std_17)
  target_include_directories(${library} PUBLIC
    $<BUILD_INTERFACE:${VEK_HEADER_FOLDER}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  if(PROJECT_IS_TOP_LEVEL)  # the tree's own sources name headers without a folder
    target_include_directories(${library} PUBLIC "$<BUILD_INTERFACE:${LIB_INCLUDES}>")
  endif()
  target_link_libraries(${library} PUBLIC ${LIB_PUBLIC} PRIVATE ${LIB_PRIVATE})
  if(LIB_ON)
    target_link_libraries(${library} PUBLIC vek${LIB_ON}${form})
  endif()
  set_target_properties(${library} PROPERTIES EXPORT_NAME ${name})
endmacro()
