# The GIF decoder against files written by the GIF writer of imgwrite.
orlimo_test(test_image_gif SOURCES gif_test.cpp LIBS orlimo_image orlimo_imgwrite orlimo_platform)
target_include_directories(test_image_gif PRIVATE ${PROJECT_SOURCE_DIR}/tests)
