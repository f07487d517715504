# Installs the built library into a scratch prefix, then configures, builds and runs the consumer
# project against it with find_package, and compiles it once more through pkg-config.
file(REMOVE_RECURSE ${WORK_DIR})
set(PREFIX ${WORK_DIR}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${PREFIX}
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "install failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/consumer -B ${WORK_DIR}/build
                        -DCMAKE_PREFIX_PATH=${PREFIX} -DCMAKE_BUILD_TYPE=Release
                        "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${CXX_FLAGS}"
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "configuring the consumer failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "building the consumer failed")
endif()
execute_process(COMMAND ${WORK_DIR}/build/consumer RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "the consumer computed wrong checksums")
endif()
# pkg-config route
file(GLOB_RECURSE PC_FILE ${PREFIX}/*/CorvaneSecurity.pc)
get_filename_component(PC_DIR "${PC_FILE}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${PC_DIR})
execute_process(COMMAND pkg-config --cflags --libs CorvaneSecurity
                OUTPUT_VARIABLE PC_FLAGS OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "pkg-config does not know CorvaneSecurity")
endif()
separate_arguments(PC_LIST UNIX_COMMAND "${PC_FLAGS} ${CXX_FLAGS}")
execute_process(COMMAND c++ -std=c++20 ${SOURCE_DIR}/tests/consumer/consumer.cpp ${PC_LIST}
                        -Wl,-rpath,${PC_DIR}/.. -o ${WORK_DIR}/consumer-pc
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "building the consumer with pkg-config flags failed")
endif()
execute_process(COMMAND ${WORK_DIR}/consumer-pc RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "the pkg-config consumer computed wrong checksums")
endif()
