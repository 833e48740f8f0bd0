# How everything is compiled. Three interface targets:
#   tf_warnings  what every target of this project gets
#   tf_shipped   what runs as root in somebody else's process gets on top of it
#   tf_include   the folders of headers

add_library(tf_include INTERFACE)
target_include_directories(tf_include INTERFACE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/include)

add_library(tf_warnings INTERFACE)
target_compile_options(tf_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wcast-qual -Wundef
  -Wformat=2 -Wno-format-nonliteral)
target_compile_definitions(tf_warnings INTERFACE _GNU_SOURCE)
# Once it optimises, g++ 12 sees overlaps and overflows inside std::string that are not there. What
# ships has no std::string and keeps the three warnings.
set(TF_STRING_WARNINGS restrict stringop-overflow array-bounds)

foreach(warning ${TF_STRING_WARNINGS})
  target_compile_options(tf_warnings INTERFACE
    "$<$<AND:$<CXX_COMPILER_ID:GNU>,$<NOT:$<BOOL:$<TARGET_PROPERTY:TF_SHIPPED>>>>:-Wno-${warning}>")
endforeach()

add_library(tf_shipped INTERFACE)
target_link_libraries(tf_shipped INTERFACE tf_warnings tf_include)
# No exception may leave the library and no allocation may end the process: with both switched off
# here the compiler proves the first.
target_compile_options(tf_shipped INTERFACE
  -fvisibility=hidden $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions> $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>
  -fstack-protector-strong -fstack-clash-protection -fcf-protection)
# A unique symbol would pin the library in memory after dlclose.
target_compile_options(tf_shipped INTERFACE
  $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
if(NOT TF_SANITIZE AND NOT TF_FUZZ AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_definitions(tf_shipped INTERFACE _FORTIFY_SOURCE=2)
endif()
# "-z nodlopen" is left out: the framework loads the method with dlopen.
set(TF_SHIPPED_LINK_OPTIONS
  -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed)

if(TF_SANITIZE)
  # The vptr check opens a pipe of its own, which tests with no descriptor left cannot give it.
  add_compile_options(-fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
if(TF_FUZZ)
  # vptr and function need the run-time types that the shipped code is compiled without.
  add_compile_options(-fsanitize=address,undefined,fuzzer-no-link -fno-sanitize=vptr,function
    -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
if(TF_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

# tf_component(name [LINK libraries...]): the .cpp files of the current folder as an object library
# of the shipped code. A source that is put into the folder is part of it.
function(tf_component name)
  cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_library(${name} OBJECT ${sources})
  target_link_libraries(${name} PUBLIC tf_shipped ${ARG_LINK})
  set_target_properties(${name} PROPERTIES TF_SHIPPED ON)
endfunction()
