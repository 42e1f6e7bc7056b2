# Compiler settings shared by every target of the project.
add_library(orlimo_options INTERFACE)
target_compile_features(orlimo_options INTERFACE cxx_std_20)
target_compile_options(orlimo_options INTERFACE -Wall -Wextra)
if(ORLIMO_WERROR)
    target_compile_options(orlimo_options INTERFACE -Werror)
endif()
target_include_directories(orlimo_options INTERFACE ${PROJECT_SOURCE_DIR}/src)

if(ORLIMO_SANITIZE)
    # Applied globally so that every library and test runs instrumented.
    add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                        -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=address,undefined)
endif()

if(ORLIMO_FUZZ)
    # Coverage instrumentation for libFuzzer everywhere; only the fuzz executables link the
    # fuzzer's own main (tests/fuzz). A subdirectory can't reach the libraries' flags, so it
    # is set here, before any library is configured.
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
