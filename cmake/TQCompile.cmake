# One set of warnings and options for every target of this tree: link tq_compile, privately.
add_library(tq_compile INTERFACE)
target_compile_options(tq_compile INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wold-style-cast -Woverloaded-virtual -Wnon-virtual-dtor
    -Wcast-qual -Wformat=2 -Wundef
    $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond -Wlogical-op>
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    $<$<BOOL:${TQ_WERROR}>:-Werror>)
# Where sources are compiled together each looks like a header, in which a class should have no parts without linkage.
if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(tq_compile INTERFACE -Wno-subobject-linkage)
endif()

# Destructors between a translated structured exception and its catch run only in code compiled so; users of the
# library get the same two options through TQLib::TQLib.
set(TQ_TRAP_OPTIONS $<$<CXX_COMPILER_ID:GNU>:-fnon-call-exceptions> -fasynchronous-unwind-tables)

if(TQ_SANITIZE)
    string(REPLACE "," ";" sanitizers "${TQ_SANITIZE}")
    foreach(s IN LISTS sanitizers)
        add_compile_options(-fsanitize=${s})
        add_link_options(-fsanitize=${s})
    endforeach()
    add_compile_options(-fno-omit-frame-pointer -fno-sanitize-recover=all)
endif()

# Windows programs find the compiler's three runtime libraries beside themselves: static copies would break exceptions
# that cross from the library into the application.
if(MINGW)
    set(TQ_RUNTIME_DLLS "")
    foreach(name libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${name} OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
        get_filename_component(path ${path} REALPATH)
        file(COPY ${path} DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
        list(APPEND TQ_RUNTIME_DLLS ${path})
    endforeach()
endif()
