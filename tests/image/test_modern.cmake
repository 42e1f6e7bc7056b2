# WebP, AVIF, HEIF and JPEG XL. The test files are made by the same libraries' encoders.
pkg_check_modules(MODERN_ENCODERS REQUIRED IMPORTED_TARGET
    libwebp libwebpmux libavif libheif libjxl)
add_library(orlimo_modern_fixtures STATIC modern_fixtures.cpp)
target_link_libraries(orlimo_modern_fixtures PUBLIC orlimo_imgwrite
                      PRIVATE orlimo_options PkgConfig::MODERN_ENCODERS)

orlimo_test(test_image_modern SOURCES modern_test.cpp
    LIBS orlimo_image orlimo_imgwrite orlimo_platform orlimo_modern_fixtures)
target_include_directories(test_image_modern PRIVATE ${PROJECT_SOURCE_DIR}/tests)
