# What is written in JavaScript runs where the channel is developed: Node.js and npm are needed for nothing that ships,
# and to test it with sanitizers or on another processor would say nothing new.
set(ADC_WITH_NODE OFF)
if(NOT ADC_SANITIZE AND NOT ADC_COVERAGE AND CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo" AND CMAKE_SIZEOF_VOID_P EQUAL 8)
  find_program(ADC_NODE node)
  find_program(ADC_NPM npm)
  if(ADC_NODE AND ADC_NPM)
    set(ADC_WITH_NODE ON)
  elseif(ADC_TESTS)
    message(STATUS "No tests of what is written in JavaScript: nodejs or npm is missing")
  endif()
endif()

# adc_node_modules(name folder)
# The target `name` installs the packages of the folder's package-lock.json, unless that has been done.
function(adc_node_modules name folder)
  set(installed ${folder}/node_modules/.installed-lock)
  add_custom_command(OUTPUT ${installed}
    COMMAND cmp -s package-lock.json ${installed} || ${ADC_NPM} ci --ignore-scripts --no-progress --silent
    COMMAND cp package-lock.json ${installed}
    DEPENDS ${folder}/package-lock.json
    WORKING_DIRECTORY ${folder}
    COMMENT "Installing the packages of ${folder}"
    VERBATIM)
  add_custom_target(${name} DEPENDS ${installed})
endfunction()
