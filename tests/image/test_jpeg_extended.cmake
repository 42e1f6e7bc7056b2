# The decoder of lossless and 12-bit JPEG frames. Its reference streams live in
# data/jpeg_extended/; lossless streams are made by the test's own writer.
orlimo_test(test_image_jpeg_extended
    SOURCES jpeg_extended_test.cpp
    LIBS orlimo_image orlimo_platform)
target_include_directories(test_image_jpeg_extended PRIVATE ${PROJECT_SOURCE_DIR}/tests
                           ${PROJECT_SOURCE_DIR}/tests/image)
