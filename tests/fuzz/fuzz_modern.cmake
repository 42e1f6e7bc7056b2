# WebP, AVIF, HEIF and JPEG XL; the seeds are written by the libraries' own encoders.
pkg_check_modules(MODERN_ENCODERS REQUIRED IMPORTED_TARGET
    libwebp libwebpmux libavif libheif libjxl)
add_executable(make-modern-seeds make_modern_seeds.cpp
               ${PROJECT_SOURCE_DIR}/tests/image/modern_fixtures.cpp)
target_include_directories(make-modern-seeds PRIVATE ${PROJECT_SOURCE_DIR}/tests)
target_link_libraries(make-modern-seeds PRIVATE orlimo_options orlimo_imgwrite
                      PkgConfig::MODERN_ENCODERS)
set_target_properties(make-modern-seeds PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${ORLIMO_FUZZ_DIR})

orlimo_fuzzer(modern SOURCES fuzz_modern.cpp LIBS orlimo_image SEEDS_FROM make-modern-seeds)
