# The library bridges: PNG, TIFF, HD Photo, JPEG 2000 and DNG. Fixtures are made in the tests by
# the libraries' own encoders (bridge_writers.cpp), so no sample files are kept.
pkg_check_modules(BRIDGE_WRITER_LIBS REQUIRED IMPORTED_TARGET libpng libtiff-4 libopenjp2 libjxr)
add_library(orlimo_bridge_writers STATIC bridge_writers.cpp bridge_jxr_writer.cpp)
target_link_libraries(orlimo_bridge_writers PUBLIC orlimo_options
                      PRIVATE PkgConfig::BRIDGE_WRITER_LIBS)
target_include_directories(orlimo_bridge_writers PUBLIC ${CMAKE_CURRENT_LIST_DIR})

orlimo_test(test_image_bridges
    SOURCES png_bridge_test.cpp tiff_bridge_test.cpp codec_bridges_test.cpp
    LIBS orlimo_image orlimo_imgwrite orlimo_platform orlimo_bridge_writers)
target_include_directories(test_image_bridges PRIVATE ${PROJECT_SOURCE_DIR}/tests)
