# A room is a folder, a CMake target and a namespace (or a class prefix).
#
#   tolvane_room(<name> INCLUDE_ROOT <dir> SOURCES <files…> [PUBLIC <targets…>] [PRIVATE <targets…>])
#   tolvane_test(<name> SOURCES <files…> LINK <targets…> [LABELS <labels…>])

add_library(tolvane_options INTERFACE)
target_compile_options(tolvane_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wconversion -Wno-sign-conversion -Werror)
if(TOLVANE_SANITIZE)
  target_compile_options(tolvane_options INTERFACE -fsanitize=${TOLVANE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(tolvane_options INTERFACE -fsanitize=${TOLVANE_SANITIZE})
endif()

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE}")
endif()
find_program(LLD NAMES ld.lld)
if(LLD AND NOT TOLVANE_SANITIZE)
  add_link_options(-fuse-ld=lld)
endif()

function(tolvane_room name)
  cmake_parse_arguments(ROOM "" "INCLUDE_ROOT" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  add_library(${name} STATIC ${ROOM_SOURCES})
  add_library(Tolvane::${name} ALIAS ${name})
  target_include_directories(${name} PUBLIC
    "$<BUILD_INTERFACE:${ROOM_INCLUDE_ROOT}>"
    "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/tolvane>")
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_link_libraries(${name} PUBLIC ${ROOM_PUBLIC} PRIVATE ${ROOM_PRIVATE} $<BUILD_INTERFACE:tolvane_options>)
  set_property(GLOBAL APPEND PROPERTY TOLVANE_ROOMS ${name})
endfunction()

function(tolvane_test name)
  cmake_parse_arguments(T "" "TIMEOUT" "SOURCES;LINK;LABELS" ${ARGN})
  find_package(GTest REQUIRED)
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LINK} GTest::gmock GTest::gtest GTest::gtest_main tolvane_options)
  target_include_directories(${name} PRIVATE "${CMAKE_SOURCE_DIR}")
  add_test(NAME ${name} COMMAND ${name})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 180)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT} LABELS "${T_LABELS}")
endfunction()
