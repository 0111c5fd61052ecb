# The fuzz targets, one line each: a name and the source that defines
# LLVMFuzzerTestOneInput (relative to the repository root).
#
# For a target <name>:
#   fuzz/corpus/<name>/   seed corpus (committed)
#   fuzz/crashes/<name>/  inputs that crashed it (committed once fixed)
#   fuzz/<name>.dict      optional libFuzzer dictionary
# With KR_BUILD_FUZZ the libFuzzer binary is fuzz/<name>_fuzzer in the build
# tree, and scripts/fuzz.sh runs it. In an ordinary test build, the ctest
# <name>_fuzzer_replay runs the same source over the corpus and the crashes.
set(KR_FUZZ_TARGETS
  flat kr/message/flat_fuzzer.cc
  encoding kr/message/encoding_fuzzer.cc
  msgjson tools/kr-msg/msgjson_fuzzer.cc
  loader_frame platform/loader/frame_fuzzer.cc
  store_request platform/store/request_fuzzer.cc
  log_records platform/log/records_fuzzer.cc
  log_mute kr/log/mute_fuzzer.cc
)
