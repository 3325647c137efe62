# Flags every target of this project gets, and the helper that declares one room of src/.

include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported()

add_library(kovo_options INTERFACE)
# -Wno-restrict: GCC 12 sees overlaps that cannot be in std::string's operator+ and assignments of
# one-character literals at -O3 (GCC bug 105651).
target_compile_options(kovo_options INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wshadow
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)

# What is delivered is hardened; scripts/check-hardening looks for it in the result. Sanitizers bring
# checks of their own, and fortified functions would hide calls from them.
if(NOT KOVO_SANITIZE)
  set(delivered $<NOT:$<CONFIG:Debug>>)
  # The log names source files: below the top of the tree, not where it lay on the builder's disk.
  target_compile_options(kovo_options INTERFACE
    $<${delivered}:-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=>)
  # Some compilers predefine _FORTIFY_SOURCE, and it does nothing without optimisation.
  target_compile_options(kovo_options INTERFACE
    $<${delivered}:-fstack-protector-strong>
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
  foreach(flag IN ITEMS -fstack-clash-protection -fcf-protection)
    string(MAKE_C_IDENTIFIER "KOVO_HAS${flag}" known)
    check_cxx_compiler_flag(${flag} ${known})
    if(${known})
      target_compile_options(kovo_options INTERFACE $<${delivered}:${flag}>)
    endif()
  endforeach()
  target_link_options(kovo_options INTERFACE
    $<${delivered}:-Wl,-z,relro,-z,now,-z,noexecstack>)
endif()

if(KOVO_SANITIZE)
  add_compile_options(-fsanitize=${KOVO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KOVO_SANITIZE})
endif()

if(KOVO_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link
    -fsanitize-ignorelist=${PROJECT_SOURCE_DIR}/tests/fuzz/ignorelist.txt)
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
