# Flags every target of this project gets, and the helper that declares one room of src/.

add_library(kovo_options INTERFACE)
# -Wno-restrict: GCC 12 sees overlaps that cannot be in std::string's operator+ and assignments of
# one-character literals at -O3 (GCC bug 105651).
target_compile_options(kovo_options INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wshadow
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
  $<$<CONFIG:Release>:-fstack-protector-strong>)
target_compile_definitions(kovo_options INTERFACE
  $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)

if(KOVO_SANITIZE)
  add_compile_options(-fsanitize=${KOVO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KOVO_SANITIZE})
endif()

# kovo_room(<name> SOURCES ... [DEPENDS <rooms or libraries> ...])
# One static library per folder of src/; DEPENDS names what the folder may include.
function(kovo_room name)
  cmake_parse_arguments(ROOM "" "" "SOURCES;DEPENDS" ${ARGN})
  add_library(kovo_${name} STATIC ${ROOM_SOURCES})
  target_include_directories(kovo_${name} PUBLIC
    ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(kovo_${name} PUBLIC ${ROOM_DEPENDS} PRIVATE kovo_options)
endfunction()

# kovo_test(<name> SOURCES ... [DEPENDS ...] [TIMEOUT seconds] [LABELS ...])
# One GoogleTest program, run by ctest as one test per program.
function(kovo_test name)
  cmake_parse_arguments(T "" "TIMEOUT" "SOURCES;DEPENDS;LABELS" ${ARGN})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  add_executable(${name} ${T_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${T_DEPENDS} GTest::gmock GTest::gtest_main kovo_options)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT} LABELS "${T_LABELS}")
endfunction()
