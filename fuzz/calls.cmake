# fuzz_calls: the call-level libFuzzer target (fuzz/fuzz_calls.cpp), built in a clang build with
# VI_SANITIZE=fuzzer by scripts/fuzz-calls. It links the device with its internal headers.
add_executable(fuzz_calls ${CMAKE_CURRENT_LIST_DIR}/fuzz_calls.cpp)
target_compile_options(fuzz_calls PRIVATE ${VI_WARNINGS})
target_link_libraries(fuzz_calls PRIVATE videoinput_internal)
target_link_options(fuzz_calls PRIVATE -fsanitize=fuzzer)
