# The tar reader and, in fuzz_gzip, the gzip and bzip2 readers, seeded by make-tarn-seeds.
add_executable(make-tarn-seeds make_tarn_seeds.cpp)
find_package(ZLIB REQUIRED)
find_package(BZip2 REQUIRED)
target_link_libraries(make-tarn-seeds PRIVATE orlimo_options ZLIB::ZLIB BZip2::BZip2)
set_target_properties(make-tarn-seeds PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${ORLIMO_FUZZ_DIR})
orlimo_fuzzer(tar SOURCES fuzz_tar.cpp LIBS orlimo_archive SEEDS_FROM make-tarn-seeds)
orlimo_fuzzer(gzip SOURCES fuzz_gzip.cpp LIBS orlimo_archive SEEDS_FROM make-tarn-seeds)
