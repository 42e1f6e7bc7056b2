# The book container reader; seeds are written by the tests' own writer of the container.
find_package(ZLIB REQUIRED)
add_executable(make-bond-seeds make_bond_seeds.cpp)
target_include_directories(make-bond-seeds PRIVATE ${PROJECT_SOURCE_DIR}/tests)
target_link_libraries(make-bond-seeds PRIVATE orlimo_options ZLIB::ZLIB)
set_target_properties(make-bond-seeds PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${ORLIMO_FUZZ_DIR})
orlimo_fuzzer(bond SOURCES fuzz_bond.cpp LIBS orlimo_archive SEEDS_FROM make-bond-seeds)
