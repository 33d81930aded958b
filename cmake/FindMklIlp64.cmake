# Finds Intel oneMKL for static linking: ILP64 interface, OpenMP-threaded layer, core.
#
#   MklIlp64::headers   the C headers, with MKL_INT 64 bits wide
#   MklIlp64::MklIlp64  the three archives and the OpenMP runtime that the threaded layer calls
#
# MklIlp64_OPENMP_LIBRARY is that runtime. MklIlp64_LICENCE_NOTICE is the file with MKL's copyright
# notices and terms, where there is one.
#
# MKLROOT, as a variable or in the environment, names an installation, and only that one is then used.
# CMPLR_ROOT names the installation of Intel's compiler, which brings an OpenMP runtime.

if(NOT MKLROOT AND DEFINED ENV{MKLROOT})
    set(MKLROOT $ENV{MKLROOT})
endif()
if(MKLROOT)
    find_path(MklIlp64_INCLUDE_DIR mkl_spblas.h PATHS ${MKLROOT}/include NO_DEFAULT_PATH)
else()
    find_path(MklIlp64_INCLUDE_DIR mkl_spblas.h PATH_SUFFIXES mkl)
endif()

# The archives of one installation do not fit the headers of another.
string(REGEX REPLACE "/include(/mkl)?/?$" "" MKL_ROOT_OF_HEADERS "${MklIlp64_INCLUDE_DIR}")
set(MKL_LIBRARY_DIRS lib/intel64 lib/${CMAKE_LIBRARY_ARCHITECTURE} lib)
foreach(part IN ITEMS intel_ilp64 intel_thread core)
    find_library(MklIlp64_${part}_ARCHIVE libmkl_${part}.a
        PATHS ${MKL_ROOT_OF_HEADERS} PATH_SUFFIXES ${MKL_LIBRARY_DIRS} NO_DEFAULT_PATH)
endforeach()

find_library(MklIlp64_OPENMP_LIBRARY NAMES iomp5 omp5 omp
    HINTS ${MKL_ROOT_OF_HEADERS} ${CMPLR_ROOT} ENV CMPLR_ROOT
    PATH_SUFFIXES ${MKL_LIBRARY_DIRS} linux/compiler/lib/intel64_lin)
find_file(MklIlp64_LICENCE_NOTICE NAMES share/doc/libmkl-dev/copyright licensing/license.txt
    PATHS ${MKL_ROOT_OF_HEADERS} NO_DEFAULT_PATH)
mark_as_advanced(MklIlp64_INCLUDE_DIR MklIlp64_intel_ilp64_ARCHIVE MklIlp64_intel_thread_ARCHIVE
    MklIlp64_core_ARCHIVE MklIlp64_OPENMP_LIBRARY MklIlp64_LICENCE_NOTICE)

if(EXISTS ${MklIlp64_INCLUDE_DIR}/mkl_version.h)
    file(STRINGS ${MklIlp64_INCLUDE_DIR}/mkl_version.h MKL_VERSION_LINES REGEX "#define __INTEL_MKL_*(_MINOR__|_UPDATE__|__) ")
    string(REGEX REPLACE "[^0-9;]" "" MklIlp64_VERSION "${MKL_VERSION_LINES}")
    list(JOIN MklIlp64_VERSION "." MklIlp64_VERSION)
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(MklIlp64
    REQUIRED_VARS MklIlp64_INCLUDE_DIR MklIlp64_intel_ilp64_ARCHIVE MklIlp64_intel_thread_ARCHIVE
        MklIlp64_core_ARCHIVE MklIlp64_OPENMP_LIBRARY
    VERSION_VAR MklIlp64_VERSION
    REASON_FAILURE_MESSAGE "install libmkl-dev (Debian non-free) and libomp-dev, or set MKLROOT")

if(MklIlp64_FOUND AND NOT TARGET MklIlp64::MklIlp64)
    find_package(Threads REQUIRED)

    add_library(MklIlp64::headers INTERFACE IMPORTED)
    target_include_directories(MklIlp64::headers INTERFACE ${MklIlp64_INCLUDE_DIR})
    target_compile_definitions(MklIlp64::headers INTERFACE MKL_ILP64)

    foreach(part IN ITEMS intel_ilp64 intel_thread core)
        add_library(MklIlp64::${part} STATIC IMPORTED)
        set_target_properties(MklIlp64::${part} PROPERTIES IMPORTED_LOCATION ${MklIlp64_${part}_ARCHIVE})
    endforeach()

    # The archives refer to one another in a circle.
    add_library(MklIlp64::MklIlp64 INTERFACE IMPORTED)
    target_link_libraries(MklIlp64::MklIlp64 INTERFACE
        MklIlp64::headers
        $<LINK_GROUP:RESCAN,MklIlp64::intel_ilp64,MklIlp64::intel_thread,MklIlp64::core>
        ${MklIlp64_OPENMP_LIBRARY} Threads::Threads m ${CMAKE_DL_LIBS})
endif()
