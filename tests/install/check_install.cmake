# Installs the build tree into a scratch prefix, then builds two tiny
# consumers against it: one with pkg-config, one with find_package.
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
file(GLOB sonames ${prefix}/lib*/libqmxvlib.so.1)
file(GLOB devlinks ${prefix}/lib*/libqmxvlib.so)
if(NOT sonames OR NOT devlinks)
  message(FATAL_ERROR "library symlinks missing under ${prefix}")
endif()

file(WRITE ${WORK_DIR}/consumer.c [=[
#include <string.h>
#include <qmxvlib.h>
int main(void) { return strcmp(QMX_GetVendorAPIVersion(), "06-02") != 0; }
]=])

# pkg-config consumer
file(GLOB pcdir ${prefix}/lib*/pkgconfig)
execute_process(COMMAND env PKG_CONFIG_PATH=${pcdir} pkg-config --cflags --libs qmxvlib
                OUTPUT_VARIABLE flags RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know qmxvlib")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
execute_process(COMMAND cc -std=c99 -Wall -Werror ${WORK_DIR}/consumer.c ${flags}
                        -Wl,-rpath,${sonames} -o ${WORK_DIR}/pc_consumer RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config consumer did not build")
endif()
get_filename_component(libdir ${sonames} DIRECTORY)
execute_process(COMMAND env LD_LIBRARY_PATH=${libdir} ${WORK_DIR}/pc_consumer RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config consumer failed: ${rc}")
endif()

# find_package consumer
file(MAKE_DIRECTORY ${WORK_DIR}/cm)
file(WRITE ${WORK_DIR}/cm/CMakeLists.txt [=[
cmake_minimum_required(VERSION 3.20)
project(consumer C)
find_package(qmxvlib 1 REQUIRED)
add_executable(consumer ../consumer.c)
target_link_libraries(consumer PRIVATE qmxvlib::qmxvlib)
]=])
execute_process(COMMAND ${CMAKE_COMMAND} -S ${WORK_DIR}/cm -B ${WORK_DIR}/cm/build
                        -DCMAKE_PREFIX_PATH=${prefix} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "find_package(qmxvlib) failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/cm/build RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "find_package consumer did not build")
endif()
execute_process(COMMAND env LD_LIBRARY_PATH=${libdir} ${WORK_DIR}/cm/build/consumer RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "find_package consumer failed: ${rc}")
endif()
message(STATUS "installed tree serves pkg-config and find_package consumers")
