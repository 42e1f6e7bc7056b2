# The decoder of lossless and 12-bit JPEG frames. Seeds: the test's reference streams and a few
# lossless streams of the test's writer.
add_executable(make-fuzz-seeds-jpeg-extended make_seeds_jpeg_extended.cpp)
target_link_libraries(make-fuzz-seeds-jpeg-extended PRIVATE orlimo_options)
target_include_directories(make-fuzz-seeds-jpeg-extended PRIVATE ${PROJECT_SOURCE_DIR}/tests/image)
target_compile_definitions(make-fuzz-seeds-jpeg-extended PRIVATE
    ORLIMO_JPEGX_FIXTURES="${PROJECT_SOURCE_DIR}/tests/image/data/jpeg_extended")
set_target_properties(make-fuzz-seeds-jpeg-extended PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${ORLIMO_FUZZ_DIR})

orlimo_fuzzer(jpeg_extended SOURCES fuzz_jpeg_extended.cpp LIBS orlimo_image
              SEEDS_FROM make-fuzz-seeds-jpeg-extended)
