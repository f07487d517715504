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

# The folder example (examples/checksum-folder), built as a user outside the tree would: with
# find_package and with pkg-config, then run on a small folder whose checksums are known.
# Known answers: MD5("abc") from RFC 1321 A.5, MD5 of no bytes from RFC 1321 A.5, XXH64("abc") and
# XXH64 of no bytes from xxhsum -H1.
set(EXAMPLE_DIR ${SOURCE_DIR}/examples/checksum-folder)
file(MAKE_DIRECTORY ${WORK_DIR}/folder/b)
file(WRITE ${WORK_DIR}/folder/abc "abc")
file(WRITE ${WORK_DIR}/folder/b/empty "")
set(EXPECTED_EXAMPLE_OUTPUT
    "44bc2cf5ad770999 900150983cd24fb0d6963f7d28e17f72  abc\nef46db3751d8e999 d41d8cd98f00b204e9800998ecf8427e  b/empty\n")
execute_process(COMMAND ${CMAKE_COMMAND} -S ${EXAMPLE_DIR} -B ${WORK_DIR}/example-build
                        -DCMAKE_PREFIX_PATH=${PREFIX} -DCMAKE_BUILD_TYPE=Release
                        "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${CXX_FLAGS}"
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "configuring the folder example failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/example-build RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "building the folder example with find_package failed")
endif()
execute_process(COMMAND c++ -std=c++20 ${EXAMPLE_DIR}/checksum_folder.cpp ${PC_LIST}
                        -Wl,-rpath,${PC_DIR}/.. -o ${WORK_DIR}/checksum_folder-pc
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "building the folder example with pkg-config flags failed")
endif()
foreach(example ${WORK_DIR}/example-build/checksum_folder ${WORK_DIR}/checksum_folder-pc)
  execute_process(COMMAND ${example} ${WORK_DIR}/folder OUTPUT_VARIABLE out RESULT_VARIABLE rc)
  if(rc OR NOT out STREQUAL EXPECTED_EXAMPLE_OUTPUT)
    message(FATAL_ERROR "${example} printed [${out}] with status ${rc}, expected [${EXPECTED_EXAMPLE_OUTPUT}]")
  endif()
endforeach()
