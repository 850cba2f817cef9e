# house_add_fuzzer(<name> SOURCES <file>... LINK <target>... SEEDS <folder> DICTIONARY <file>)
#
# A libFuzzer program. CTest runs it for JX_FUZZ_SECONDS from its seeds, under the label fuzz;
# what it finds new stays in the build tree, the seeds are never written to. Leaks are looked for at
# the end: threads of the targets free after an input what they allocated during it, and each look
# costs milliseconds.

set(JX_FUZZ_SECONDS 30 CACHE STRING "Seconds that CTest runs each fuzz target for")

function(house_add_fuzzer name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "SEEDS;DICTIONARY" "SOURCES;LINK")
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LINK})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  house_target_warnings(${name})
  set(corpus "${CMAKE_CURRENT_BINARY_DIR}/${name}.corpus")
  file(MAKE_DIRECTORY "${corpus}")
  add_test(NAME fuzz.${name}
           COMMAND ${name} -max_total_time=${JX_FUZZ_SECONDS} -timeout=10 -rss_limit_mb=1024
                   -detect_leaks=0 -entropic=0
                   -print_final_stats=1 "-dict=${CMAKE_CURRENT_SOURCE_DIR}/${arg_DICTIONARY}" "${corpus}" "${CMAKE_CURRENT_SOURCE_DIR}/${arg_SEEDS}")
  math(EXPR limit "${JX_FUZZ_SECONDS} + 60")
  set_tests_properties(fuzz.${name} PROPERTIES LABELS fuzz TIMEOUT ${limit})
endfunction()
