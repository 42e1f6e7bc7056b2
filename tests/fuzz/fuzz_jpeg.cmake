# The JPEG decoder and the EXIF walk. Its seeds are encoded by TurboJPEG and the library's own
# encoder, as the tests make their fixtures.
pkg_check_modules(JPEG_SEED_LIBS REQUIRED IMPORTED_TARGET libturbojpeg libjpeg)
add_executable(make-jpeg-seeds make_jpeg_seeds.cpp)
target_link_libraries(make-jpeg-seeds PRIVATE orlimo_options PkgConfig::JPEG_SEED_LIBS)
target_include_directories(make-jpeg-seeds PRIVATE ${PROJECT_SOURCE_DIR}/tests/image)
set_target_properties(make-jpeg-seeds PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${ORLIMO_FUZZ_DIR})
orlimo_fuzzer(jpeg SOURCES fuzz_jpeg.cpp LIBS orlimo_image SEEDS_FROM make-jpeg-seeds)
