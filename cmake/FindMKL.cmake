# Finds Intel oneMKL for static linking: ILP64 interface, OpenMP-threaded layer, core.
#
#   MKL::headers   the C headers, with MKL_INT 64 bits wide
#   MKL::MKL       the three archives and the OpenMP runtime that the threaded layer calls
#
# MKL_LICENCE_NOTICE is the file with its copyright notices and terms, where there is one.
#
# MKLROOT, as a variable or in the environment, names an installation outside the system paths.

set(MKL_HINTS ${MKLROOT} $ENV{MKLROOT})

find_path(MKL_INCLUDE_DIR mkl_spblas.h HINTS ${MKL_HINTS} PATH_SUFFIXES include mkl)
find_library(MKL_INTERFACE_ARCHIVE libmkl_intel_ilp64.a HINTS ${MKL_HINTS} PATH_SUFFIXES lib/intel64)
find_library(MKL_THREADING_ARCHIVE libmkl_intel_thread.a HINTS ${MKL_HINTS} PATH_SUFFIXES lib/intel64)
find_library(MKL_CORE_ARCHIVE libmkl_core.a HINTS ${MKL_HINTS} PATH_SUFFIXES lib/intel64)
find_library(MKL_OPENMP_LIBRARY iomp5 HINTS ${MKL_HINTS} PATH_SUFFIXES lib/intel64)
find_file(MKL_LICENCE_NOTICE NAMES doc/libmkl-dev/copyright licensing/license.txt HINTS ${MKL_HINTS} PATHS /usr/share)
mark_as_advanced(MKL_LICENCE_NOTICE MKL_INCLUDE_DIR MKL_INTERFACE_ARCHIVE MKL_THREADING_ARCHIVE MKL_CORE_ARCHIVE MKL_OPENMP_LIBRARY)

if(NOT MKL_INCLUDE_DIR OR NOT MKL_INTERFACE_ARCHIVE OR NOT MKL_THREADING_ARCHIVE OR NOT MKL_CORE_ARCHIVE)
    set(MKL_PROBLEM "Intel MKL not found: install libmkl-dev (Debian non-free), or set MKLROOT")
elseif(NOT MKL_OPENMP_LIBRARY)
    set(MKL_PROBLEM "libiomp5, the OpenMP runtime of MKL, not found: install libomp-dev")
endif()

if(NOT MKL_PROBLEM)
    set(MKL_FOUND TRUE)
elseif(MKL_FIND_REQUIRED)
    message(FATAL_ERROR "${MKL_PROBLEM}")
else()
    set(MKL_FOUND FALSE)
endif()

if(MKL_FOUND AND NOT TARGET MKL::MKL)
    find_package(Threads REQUIRED)

    add_library(MKL::headers INTERFACE IMPORTED)
    target_include_directories(MKL::headers INTERFACE ${MKL_INCLUDE_DIR})
    target_compile_definitions(MKL::headers INTERFACE MKL_ILP64)

    foreach(part IN ITEMS INTERFACE THREADING CORE)
        add_library(MKL::${part} STATIC IMPORTED)
        set_target_properties(MKL::${part} PROPERTIES IMPORTED_LOCATION ${MKL_${part}_ARCHIVE})
    endforeach()

    # The archives refer to one another in a circle.
    add_library(MKL::MKL INTERFACE IMPORTED)
    target_link_libraries(MKL::MKL INTERFACE
        MKL::headers
        $<LINK_GROUP:RESCAN,MKL::INTERFACE,MKL::THREADING,MKL::CORE>
        ${MKL_OPENMP_LIBRARY} Threads::Threads m ${CMAKE_DL_LIBS})
endif()
