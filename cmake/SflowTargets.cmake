# Compiler settings that every target of the project shares, and the two ways of declaring a target.

add_library(sflow_build_flags INTERFACE)
target_compile_options(sflow_build_flags INTERFACE
    -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wno-sign-conversion
    -Wnon-virtual-dtor -Wold-style-cast -Wcast-align -Wformat=2 -Wimplicit-fallthrough
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wthread-safety-beta -Wno-gnu-zero-variadic-macro-arguments>
    -fno-omit-frame-pointer)
target_compile_definitions(sflow_build_flags INTERFACE _GNU_SOURCE SFLOW_VERSION="${PROJECT_VERSION}")
if(SFLOW_SANITIZE)
    target_compile_options(sflow_build_flags INTERFACE -fsanitize=${SFLOW_SANITIZE} -fno-sanitize-recover=all)
    target_link_options(sflow_build_flags INTERFACE -fsanitize=${SFLOW_SANITIZE})
endif()

# sflow_library(NAME SOURCES a.cpp … [LIBS lib …]): one static library a module or service.
function(sflow_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_link_libraries(${name} PUBLIC sflow_include ${ARG_LIBS} PRIVATE sflow_build_flags)
endfunction()

# sflow_module(NAME SOURCES a.cpp …): one module of the daemon. Modules call one another in both
# directions, so they are object libraries that are linked together as `sflow_app`.
function(sflow_module name)
    cmake_parse_arguments(ARG "" "" "SOURCES" ${ARGN})
    add_library(${name} OBJECT ${ARG_SOURCES})
    target_link_libraries(${name} PUBLIC sflow_include PRIVATE sflow_build_flags)
    target_link_libraries(sflow_app INTERFACE ${name} $<TARGET_OBJECTS:${name}>)
endfunction()
