# Compiler settings shared by every target, and the two functions that targets are made with.

add_library(tolvar_options INTERFACE)
target_include_directories(tolvar_options INTERFACE ${PROJECT_SOURCE_DIR})
# Within another project the compiler is that one's choice, and a newer one knows more warnings.
target_compile_options(tolvar_options INTERFACE
  -Wall -Wextra $<$<BOOL:${PROJECT_IS_TOP_LEVEL}>:-Werror> -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-qual
  -Wconversion -Wno-sign-conversion -fno-omit-frame-pointer)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 13)
  # The only compiler with this level; plain forms elsewhere complain about overload sets as well.
  target_compile_options(tolvar_options INTERFACE -Woverloaded-virtual=1)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # g++ 12 sees overlapping copies in std::string where there are none (its bug 105651).
  target_compile_options(tolvar_options INTERFACE -Wno-restrict)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(tolvar_options INTERFACE -Wthread-safety)
  # clang has no levels of this warning; its plain form is g++'s level 2.
  target_compile_options(tolvar_options INTERFACE -Wno-overloaded-virtual -Wno-unknown-warning-option)
endif()
if(TOLVAR_SANITIZE)
  target_compile_options(tolvar_options INTERFACE -fsanitize=${TOLVAR_SANITIZE} -fno-sanitize-recover=all)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # At -O1 g++ inlines one of a replaced operator new and delete and then misses its partner.
    target_compile_options(tolvar_options INTERFACE -Wno-mismatched-new-delete)
  endif()
  target_link_options(tolvar_options INTERFACE -fsanitize=${TOLVAR_SANITIZE})
endif()

# tolvar_public(NAME PUBLIC|INTERFACE): the library's headers are found, and it has a name for hosts,
# tolvar::client for tolvar_client, wherever the tree is built and wherever it is installed.
function(tolvar_public name scope)
  target_include_directories(${name} ${scope}
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/tolvar>)
  string(REGEX REPLACE "^tolvar_" "" short ${name})
  add_library(tolvar::${short} ALIAS ${name})
  set_target_properties(${name} PROPERTIES EXPORT_NAME ${short})
endfunction()

# tolvar_library(NAME SOURCES file... LINKS target...): one layer of the product.
function(tolvar_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINKS" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC ${arg_LINKS} PRIVATE $<BUILD_INTERFACE:tolvar_options>)
  tolvar_public(${name} PUBLIC)
  # The headers need it, so whoever links a layer gets it, whatever a project around this one says.
  target_compile_features(${name} PUBLIC cxx_std_20)
  if(TOLVAR_SANITIZE)
    target_link_options(${name} PUBLIC -fsanitize=${TOLVAR_SANITIZE})
  endif()
endfunction()

# tolvar_test(NAME SOURCES file... LINKS target... [TIMEOUT seconds]): one test program. Every case
# in it becomes a CTest test of its own, with a time limit.
function(tolvar_test name)
  cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LINKS" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 60)
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LINKS} tolvar_test_support GTest::gmock GTest::gtest_main tolvar_options)
  gtest_discover_tests(${name} PROPERTIES TIMEOUT ${arg_TIMEOUT} DISCOVERY_TIMEOUT 60)
endfunction()
