# mg_library(NAME SOURCES... DEPENDS libs...)
# One static library per subsystem layer; the shared object is built from all of them.
function(mg_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_library(${name}_obj OBJECT ${ARG_SOURCES})
  # Library code needs no C++ runtime: no exceptions, no RTTI, no guarded statics.
  target_compile_options(${name}_obj PRIVATE -fno-exceptions -fno-rtti -fno-threadsafe-statics
                         -ffunction-sections -fdata-sections)
  target_include_directories(${name}_obj PUBLIC ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
  add_library(${name} STATIC $<TARGET_OBJECTS:${name}_obj>)
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS})
  set_property(GLOBAL APPEND PROPERTY MG_LIBRARIES ${name})
endfunction()

# mg_exports(list-file): adds the symbols of a subsystem's export list to the shared object.
function(mg_exports file)
  set_property(GLOBAL APPEND PROPERTY MG_EXPORT_LISTS ${CMAKE_CURRENT_SOURCE_DIR}/${file})
endfunction()

# mg_unit_test(NAME SOURCES... DEPENDS libs...): a GoogleTest binary registered with ctest.
function(mg_unit_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPENDS} mg_testsupport GTest::gtest GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES LABELS "${ARG_LABELS}")
endfunction()

# mg_fuzz_target(NAME SOURCE file DEPENDS libs...): a libFuzzer entry point
# (LLVMFuzzerTestOneInput) in fuzz/, with its checked-in corpus fuzz/corpus/NAME.
# A GCC build gets a replay binary that runs the corpus as a ctest test; a
# MG_LIBFUZZER (clang) build gets the real fuzzer NAME_fuzzer, whose ctest test
# runs the same corpus through it (-runs=0: every input once, no mutation).
function(mg_fuzz_target name)
  cmake_parse_arguments(ARG "" "SOURCE" "DEPENDS" ${ARGN})
  set(corpus ${PROJECT_SOURCE_DIR}/fuzz/corpus/${name})
  if(MG_LIBFUZZER)
    add_executable(${name}_fuzzer ${ARG_SOURCE})
    target_link_libraries(${name}_fuzzer PRIVATE ${ARG_DEPENDS})
    target_link_options(${name}_fuzzer PRIVATE -fsanitize=fuzzer)
    add_test(NAME fuzz_run_${name} COMMAND ${name}_fuzzer -runs=0 ${corpus})
    set_tests_properties(fuzz_run_${name} PROPERTIES LABELS fuzz)
  else()
    add_executable(${name}_replay ${ARG_SOURCE} ${PROJECT_SOURCE_DIR}/fuzz/replay_main.cpp)
    target_link_libraries(${name}_replay PRIVATE ${ARG_DEPENDS})
    add_test(NAME fuzz_replay_${name} COMMAND ${name}_replay ${corpus})
    set_tests_properties(fuzz_replay_${name} PROPERTIES LABELS fuzz)
  endif()
endfunction()
