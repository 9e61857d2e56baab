# The fuzz targets, one source each (NAME_fuzzer.cpp). Shared by the fuzzing
# build (tests/fuzz/CMakeLists.txt, clang and libFuzzer) and the test suite,
# which replays the inputs that once crashed and the seeds with every build.
set(HALYX_FUZZ_TARGETS hex elf mcuboot_image manifest smp_receive usb_replies documents_back renderers)
