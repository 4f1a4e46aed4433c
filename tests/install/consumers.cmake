# Builds and runs a C consumer against the tree under ${prefix}, once with
# pkg-config and once with find_package(qmxvlib).  Needs: prefix, WORK_DIR,
# CONSUMER_FLAGS, and sonames (the installed libqmxvlib.so.1).
file(WRITE ${WORK_DIR}/consumer.c [=[
#include <string.h>
#include <qmxvlib.h>
int main(void) { return strcmp(QMX_GetVendorAPIVersion(), "06-02") != 0; }
]=])

# pkg-config consumer
file(GLOB pcdir ${prefix}/lib/*-linux-*/pkgconfig ${prefix}/lib*/pkgconfig)
execute_process(COMMAND env PKG_CONFIG_PATH=${pcdir} pkg-config --cflags --libs qmxvlib
                OUTPUT_VARIABLE flags RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know qmxvlib")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
separate_arguments(consumer_flags UNIX_COMMAND "${CONSUMER_FLAGS}")
execute_process(COMMAND cc -std=c99 -Wall -Werror ${consumer_flags} ${WORK_DIR}/consumer.c ${flags}
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
                        -DCMAKE_PREFIX_PATH=${prefix} "-DCMAKE_C_FLAGS=${CONSUMER_FLAGS}"
                        "-DCMAKE_EXE_LINKER_FLAGS=${CONSUMER_FLAGS}" RESULT_VARIABLE rc)
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
