# The ZIP reader, listing and extracting to memory; seeds are built by hand with zlib.
find_package(ZLIB REQUIRED)
add_executable(make-zip-seeds make_zip_seeds.cpp)
target_link_libraries(make-zip-seeds PRIVATE orlimo_options ZLIB::ZLIB)
target_include_directories(make-zip-seeds PRIVATE ${PROJECT_SOURCE_DIR}/tests)
set_target_properties(make-zip-seeds PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${ORLIMO_FUZZ_DIR})
orlimo_fuzzer(zip SOURCES fuzz_zip.cpp
              LIBS orlimo_archive SEEDS_FROM make-zip-seeds)
