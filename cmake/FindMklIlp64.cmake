# Finds Intel oneMKL for static linking: ILP64 interface, OpenMP-threaded layer, core.
#
#   MklIlp64::headers   the C headers, with MKL_INT 64 bits wide
#   MklIlp64::MklIlp64  the three archives and the OpenMP runtime that the threaded layer calls
#
# MklIlp64_OPENMP_LIBRARY is that runtime, and MklIlp64_OPENMP_RUNTIME the name of its file.
# MklIlp64_LICENCE_NOTICES are the files with MKL's copyright notices and terms.
#
# MKLROOT, as a variable or else in the environment, names an installation, and only that one is then used. Each
# configuration looks at it anew. CMPLR_ROOT names the installation of Intel's compiler, which brings an OpenMP
# runtime.

set(mkl_root "${MKLROOT}")
if(NOT mkl_root)
    set(mkl_root "$ENV{MKLROOT}")
endif()
if(mkl_root)
    get_filename_component(mkl_root "${mkl_root}" ABSOLUTE BASE_DIR "$ENV{PWD}")
endif()
if(NOT "${mkl_root}" STREQUAL "${MklIlp64_LAST_MKLROOT}")
    foreach(found IN ITEMS INCLUDE_DIR intel_ilp64_ARCHIVE intel_thread_ARCHIVE core_ARCHIVE OPENMP_LIBRARY)
        unset(MklIlp64_${found} CACHE)
    endforeach()
endif()
set(MklIlp64_LAST_MKLROOT "${mkl_root}" CACHE INTERNAL "the MKLROOT of the last configuration")

if(mkl_root)
    find_path(MklIlp64_INCLUDE_DIR mkl_spblas.h PATHS ${mkl_root}/include NO_DEFAULT_PATH)
else()
    find_path(MklIlp64_INCLUDE_DIR mkl_spblas.h PATH_SUFFIXES mkl)
endif()

# The archives of one installation do not fit the headers of another.
string(REGEX REPLACE "/include(/mkl)?/?$" "" mkl_prefix "${MklIlp64_INCLUDE_DIR}")
set(mkl_library_dirs lib/intel64 lib/${CMAKE_LIBRARY_ARCHITECTURE} lib)
foreach(part IN ITEMS intel_ilp64 intel_thread core)
    find_library(MklIlp64_${part}_ARCHIVE libmkl_${part}.a
        PATHS ${mkl_prefix} PATH_SUFFIXES ${mkl_library_dirs} NO_DEFAULT_PATH)
endforeach()

find_library(MklIlp64_OPENMP_LIBRARY NAMES iomp5 omp5 omp
    HINTS ${mkl_prefix} ${CMPLR_ROOT} ENV CMPLR_ROOT
    PATH_SUFFIXES ${mkl_library_dirs} linux/compiler/lib/intel64_lin)

file(REAL_PATH "${MklIlp64_OPENMP_LIBRARY}" MklIlp64_OPENMP_RUNTIME)
get_filename_component(MklIlp64_OPENMP_RUNTIME "${MklIlp64_OPENMP_RUNTIME}" NAME)

# Where Debian's package, Intel's installer before and after 2024, and PyPI's packages have them. The last two are
# of Intel's OpenMP runtime.
file(GLOB MklIlp64_LICENCE_NOTICES
    ${mkl_prefix}/share/doc/libmkl-dev/copyright
    ${mkl_prefix}/licensing/*.txt
    ${mkl_prefix}/share/doc/mkl/licensing/*.txt
    ${mkl_prefix}/lib/python3*/site-packages/mkl_static-*.dist-info/LICENSE.txt
    ${mkl_prefix}/lib/python3*/site-packages/intel_openmp-*.dist-info/LICENSE.txt
    ${mkl_prefix}/share/doc/compiler/licensing/openmp/*.txt)

# The release as Intel names it: 2020.4, 2026.2.0.
if(EXISTS ${MklIlp64_INCLUDE_DIR}/mkl_version.h)
    file(READ ${MklIlp64_INCLUDE_DIR}/mkl_version.h mkl_version_header)
    set(MklIlp64_VERSION "")
    foreach(macro IN ITEMS __INTEL_MKL__ __INTEL_MKL_UPDATE__ __INTEL_MKL_PATCH__)
        if(mkl_version_header MATCHES "#define ${macro} +([0-9]+)")
            list(APPEND MklIlp64_VERSION ${CMAKE_MATCH_1})
        endif()
    endforeach()
    list(JOIN MklIlp64_VERSION "." MklIlp64_VERSION)
endif()
set(MklIlp64_RELEASE "${MklIlp64_VERSION}" CACHE INTERNAL "for scripts that ask a build what it was built on")

set(mkl_reason "install libmkl-dev (Debian non-free) and libomp-dev, or set MKLROOT")
if(mkl_root)
    set(mkl_reason "MKLROOT is ${mkl_root}: that must hold include/mkl_spblas.h, and the static libraries in lib")
endif()
if(MklIlp64_core_ARCHIVE AND NOT MklIlp64_OPENMP_LIBRARY)
    string(CONCAT mkl_reason "the OpenMP runtime libiomp5.so is neither in ${mkl_prefix}/lib nor in the system's folders: "
        "install libomp-dev, or set CMPLR_ROOT to the folder whose lib holds it")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(MklIlp64
    REQUIRED_VARS MklIlp64_INCLUDE_DIR MklIlp64_intel_ilp64_ARCHIVE MklIlp64_intel_thread_ARCHIVE
        MklIlp64_core_ARCHIVE MklIlp64_OPENMP_LIBRARY
    VERSION_VAR MklIlp64_VERSION
    REASON_FAILURE_MESSAGE "${mkl_reason}")

if(MklIlp64_VERSION MATCHES "^2022\\.0(\\.|$)")
    message(WARNING "oneMKL ${MklIlp64_VERSION} ends a process with MKL_ENABLE_INSTRUCTIONS=SSE4_2 in its first "
        "product, without a message. Other releases do not.")
endif()

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
        -Wl,--start-group MklIlp64::intel_ilp64 MklIlp64::intel_thread MklIlp64::core -Wl,--end-group
        ${MklIlp64_OPENMP_LIBRARY} Threads::Threads m ${CMAKE_DL_LIBS})
endif()
