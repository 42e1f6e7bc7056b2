# The JPEG decoder and the metadata pass. Fixtures are encoded on the spot by TurboJPEG and
# the library's own encoder, which also decode the references.
pkg_check_modules(JPEG_TEST_LIBS REQUIRED IMPORTED_TARGET libturbojpeg libjpeg)
orlimo_test(test_image_jpeg
    SOURCES jpeg_test.cpp jpegmeta_test.cpp
    LIBS orlimo_image orlimo_imgwrite orlimo_platform PkgConfig::JPEG_TEST_LIBS Threads::Threads)
target_include_directories(test_image_jpeg PRIVATE ${PROJECT_SOURCE_DIR}/tests)
