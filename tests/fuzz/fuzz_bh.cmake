# The BH reader; seeds are written byte by byte by make-bhcab-seeds, with zlib.
find_package(ZLIB REQUIRED)
if(NOT TARGET make-bhcab-seeds)
    add_executable(make-bhcab-seeds make_bhcab_seeds.cpp)
    target_link_libraries(make-bhcab-seeds PRIVATE orlimo_options ZLIB::ZLIB)
    target_include_directories(make-bhcab-seeds PRIVATE ${PROJECT_SOURCE_DIR}/tests)
    set_target_properties(make-bhcab-seeds PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${ORLIMO_FUZZ_DIR})
endif()
orlimo_fuzzer(bh SOURCES fuzz_bh.cpp LIBS orlimo_archive SEEDS_FROM make-bhcab-seeds)
