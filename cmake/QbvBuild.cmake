# Compile settings shared by every target, and the helper that declares a test program.

# Warnings and include root alone: for programs that tests look at from outside and that are never sanitized.
add_library(qbv_plain_settings INTERFACE)
target_include_directories(qbv_plain_settings INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_options(qbv_plain_settings INTERFACE
  -Wall -Wextra -Wpedantic -Werror
  $<$<COMPILE_LANGUAGE:CXX>:-Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual>
  # GCC 12 sees overlapping copies in plain string concatenation and uninitialized variants where there are none, above
  # all at full optimisation and under sanitizers (known false alarms).
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-restrict -Wno-maybe-uninitialized>
  -fno-omit-frame-pointer)
add_library(qbv_build_settings INTERFACE)
target_link_libraries(qbv_build_settings INTERFACE qbv_plain_settings)
if(QBV_SANITIZE)
  target_compile_options(qbv_build_settings INTERFACE -fsanitize=${QBV_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(qbv_build_settings INTERFACE -fsanitize=${QBV_SANITIZE})
  target_compile_definitions(qbv_build_settings INTERFACE QBV_SANITIZED=1)
endif()

# How test programs are compiled. The matchers' templates cost twice the time at full optimisation and gain nothing from
# it; checked for undefined behaviour they cost four times as much, and it is the library's behaviour that is in question.
function(qbv_test_settings name)
  target_link_libraries(${name} PRIVATE qbv_build_settings GTest::gmock)
  if(QBV_SANITIZE)
    target_compile_options(${name} PRIVATE -O0 -g1 -fno-sanitize=undefined)
  else()
    target_compile_options(${name} PRIVATE -O1 -g1)
  endif()
  target_compile_definitions(${name} PRIVATE QBV_MAIL_DOMAIN="${QBV_MAIL_DOMAIN}")
endfunction()

# qbv_add_test(NAME SOURCES file... [LIBRARIES lib...] [TIMEOUT seconds] [LABELS label...])
# One GoogleTest program; every case is a ctest test, so it runs in a process of its own.
function(qbv_add_test name)
  cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LIBRARIES;LABELS" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 60)
  endif()
  add_executable(${name} ${arg_SOURCES})
  qbv_test_settings(${name})
  target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}")
endfunction()

# qbv_folder_sources(TARGET [EXCLUDE file...]): every source file of the current folder belongs to TARGET.
function(qbv_folder_sources target)
  cmake_parse_arguments(arg "" "" "EXCLUDE" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp" "${CMAKE_CURRENT_SOURCE_DIR}/*.S")
  foreach(excluded IN LISTS arg_EXCLUDE)
    list(REMOVE_ITEM sources "${CMAKE_CURRENT_SOURCE_DIR}/${excluded}")
  endforeach()
  target_sources(${target} PRIVATE ${sources})
endfunction()
