# The GIF decoder, with seeds written by the GIF writer.
add_executable(make-gif-seeds make_gif_seeds.cpp)
target_link_libraries(make-gif-seeds PRIVATE orlimo_options orlimo_imgwrite)
set_target_properties(make-gif-seeds PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${ORLIMO_FUZZ_DIR})
orlimo_fuzzer(gif SOURCES fuzz_gif.cpp LIBS orlimo_image SEEDS_FROM make-gif-seeds)
