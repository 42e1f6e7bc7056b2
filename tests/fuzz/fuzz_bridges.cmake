# The library bridges (PNG, TIFF, DNG, HD Photo, JPEG 2000), seeded by files that the
# libraries' own encoders write (tests/image/bridge_writers.cpp).
pkg_check_modules(BRIDGE_SEED_LIBS REQUIRED IMPORTED_TARGET libpng libtiff-4 libopenjp2 libjxr)
add_executable(make-bridges-seeds make_bridges_seeds.cpp
               ${PROJECT_SOURCE_DIR}/tests/image/bridge_writers.cpp
               ${PROJECT_SOURCE_DIR}/tests/image/bridge_jxr_writer.cpp)
target_include_directories(make-bridges-seeds PRIVATE ${PROJECT_SOURCE_DIR}/tests/image)
target_link_libraries(make-bridges-seeds PRIVATE orlimo_options PkgConfig::BRIDGE_SEED_LIBS)
set_target_properties(make-bridges-seeds PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${ORLIMO_FUZZ_DIR})

orlimo_fuzzer(bridges SOURCES fuzz_bridges.cpp LIBS orlimo_image SEEDS_FROM make-bridges-seeds)
