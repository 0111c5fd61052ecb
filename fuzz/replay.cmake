# Ordinary (non-libFuzzer) builds: for every target in targets.cmake, a
# binary <name>_fuzzer_replay made of the target's source and replay_main.cc,
# registered as the ctest <name>_fuzzer_replay. It feeds every file of
# fuzz/corpus/<name> and fuzz/crashes/<name> to LLVMFuzzerTestOneInput, so a
# violated invariant fails the test. Included once, from any CMakeLists.txt.
include_guard(GLOBAL)

if(KR_BUILD_TESTS AND NOT KR_BUILD_FUZZ)
  include(${CMAKE_CURRENT_LIST_DIR}/targets.cmake)
  set(_kr_fuzz_targets ${KR_FUZZ_TARGETS})
  while(_kr_fuzz_targets)
    list(POP_FRONT _kr_fuzz_targets _name _src)
    add_executable(${_name}_fuzzer_replay ${PROJECT_SOURCE_DIR}/${_src} ${CMAKE_CURRENT_LIST_DIR}/replay_main.cc)
    target_link_libraries(${_name}_fuzzer_replay PRIVATE kr)
    add_test(NAME ${_name}_fuzzer_replay
      COMMAND ${_name}_fuzzer_replay ${CMAKE_CURRENT_LIST_DIR}/corpus/${_name}
              --optional ${CMAKE_CURRENT_LIST_DIR}/crashes/${_name})
  endwhile()
endif()
