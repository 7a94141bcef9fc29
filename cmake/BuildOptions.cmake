include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)  # POSITION_INDEPENDENT_CODE then holds for linking, too

# Two interface targets that every target of the project links:
# adc-options (language, visibility, sanitizers) and adc-warnings. The presets make every warning an error;
# a plain `cmake -B` does not, as another compiler may warn of something else.

add_library(adc-options INTERFACE)
target_compile_features(adc-options INTERFACE cxx_std_17)
target_compile_options(adc-options INTERFACE
  -fvisibility=hidden -fvisibility-inlines-hidden $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>
  $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2> -fstack-protector-strong)
# On 32 bits, or else an inode number that is too large makes stat() fail. Not _TIME_BITS as well: time_t
# is part of other libraries' interfaces.
target_compile_definitions(adc-options INTERFACE _FILE_OFFSET_BITS=64)
target_link_options(adc-options INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
if(CMAKE_CXX_CLANG_TIDY)  # with other checks it goes over everything again
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/.clang-tidy)
  file(SHA256 ${PROJECT_SOURCE_DIR}/.clang-tidy checks)
  target_compile_definitions(adc-options INTERFACE ADC_CHECKS="${checks}")
endif()
if(ADC_SANITIZE)
  target_compile_options(adc-options INTERFACE
    -fsanitize=${ADC_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(adc-options INTERFACE -fsanitize=${ADC_SANITIZE})
endif()
if(ADC_COVERAGE)
  target_compile_options(adc-options INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(adc-options INTERFACE --coverage)
endif()

add_library(adc-warnings INTERFACE)
target_compile_options(adc-warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wformat=2
  -Wold-style-cast -Wcast-align -Wcast-qual -Wnon-virtual-dtor -Woverloaded-virtual
  -Wundef -Wunused -Wdouble-promotion -Wextra-semi
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)

# For every program that uses GLib, which the sanitizers cannot see into.
add_library(adc-glib-suppressions INTERFACE)
if(ADC_SANITIZE MATCHES thread)
  target_sources(adc-glib-suppressions INTERFACE
    ${PROJECT_SOURCE_DIR}/tests/support/TsanSuppressions.cpp)
elseif(ADC_SANITIZE MATCHES address)
  target_sources(adc-glib-suppressions INTERFACE
    ${PROJECT_SOURCE_DIR}/tests/support/AsanOptions.cpp)
endif()
