# Runs orlimo-archive over a tar and a ZIP archive made here by CMake's own archiver.
# cmake -DTOOL=path/to/orlimo-archive -DWORK=scratch/folder -P orlimo_archive_tool.cmake
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/in/sub)
file(WRITE ${WORK}/in/a.txt "hello, archive\n")
file(WRITE ${WORK}/in/sub/b.txt "second\n")

function(run expected_rc)
    execute_process(COMMAND ${TOOL} ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out
                    ERROR_VARIABLE err)
    if(NOT rc STREQUAL expected_rc)
        message(FATAL_ERROR "orlimo-archive ${ARGN}: exit ${rc}, wanted ${expected_rc}\n${out}${err}")
    endif()
    set(out "${out}" PARENT_SCOPE)
endfunction()

foreach(kind tar zip)
    set(archive ${WORK}/book.${kind})
    if(kind STREQUAL "zip")
        set(format zip)
    else()
        set(format gnutar)
    endif()
    execute_process(COMMAND ${CMAKE_COMMAND} -E tar cf ${archive} --format=${format} a.txt sub
                    WORKING_DIRECTORY ${WORK}/in RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "can't make ${archive}")
    endif()

    run(0 list ${archive})
    # INDEX SIZE PACKED METHOD ENCRYPTION FOLDER NAME
    if(NOT out MATCHES "(^|\n)([0-9]+) 15 [0-9]+ [A-Za-z0-9]+ - 0 a.txt\n")
        message(FATAL_ERROR "${kind}: no line for a.txt in\n${out}")
    endif()
    set(index ${CMAKE_MATCH_2})
    if(NOT out MATCHES "(^|\n)[0-9]+ 7 [0-9]+ [A-Za-z0-9]+ - 0 sub\\\\b.txt\n")
        message(FATAL_ERROR "${kind}: no line for sub\\b.txt in\n${out}")
    endif()

    run(0 extract ${archive} ${index} ${WORK}/out.txt)
    file(READ ${WORK}/out.txt got)
    if(NOT got STREQUAL "hello, archive\n")
        message(FATAL_ERROR "${kind}: extracted \"${got}\"")
    endif()
    # An index past the end is the library's error 55.
    run(55 extract ${archive} 99 ${WORK}/none.txt)
endforeach()

# A file that is no archive at all: format not recognised (73).
file(WRITE ${WORK}/junk.zip "not an archive")
run(73 list ${WORK}/junk.zip)
run(2 list)
