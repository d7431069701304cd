# Builds Brinmoor Web (web/) with npm and compiles the result into a Qt resource, so that
# brinmoor-server serves it from its own binary. Nothing is written into web/: npm ci runs
# in the build folder (BUILD/web) when the lock file changes, and the Vite build, in a
# copy of web/ made there beside the packages (web/build_support/in_build.mjs), when
# anything under web/ does (or the README, whose "Reach it from anywhere" the build makes a
# page of).
find_program(BRINMOOR_NPM npm REQUIRED)
find_program(BRINMOOR_NODE node REQUIRED)

set(web_source ${PROJECT_SOURCE_DIR}/web)
set(web_build ${CMAKE_BINARY_DIR}/web)
set(web_dist ${web_build}/dist)
# The stamps are written here; Ninja makes an output's folder itself, Make does not.
file(MAKE_DIRECTORY ${web_build})

file(GLOB_RECURSE web_inputs CONFIGURE_DEPENDS
  ${web_source}/src/*
  ${web_source}/public/*
  ${web_source}/build_support/*)
list(APPEND web_inputs
  ${web_source}/index.html
  ${web_source}/package.json
  ${web_source}/vite.config.ts
  ${web_source}/tsconfig.json
  ${web_source}/tsconfig.sw.json
  ${PROJECT_SOURCE_DIR}/README.md)

add_custom_command(
  OUTPUT ${web_build}/npm-ci.stamp
  COMMAND ${CMAKE_COMMAND} -E copy_if_different ${web_source}/package.json ${web_source}/package-lock.json ${web_build}
  COMMAND ${BRINMOOR_NPM} ci --no-audit --no-fund --loglevel=error
  COMMAND ${CMAKE_COMMAND} -E touch ${web_build}/npm-ci.stamp
  DEPENDS ${web_source}/package.json ${web_source}/package-lock.json
  WORKING_DIRECTORY ${web_build}
  COMMENT "Installing the web client's packages (npm ci)"
  VERBATIM)

add_custom_command(
  OUTPUT ${web_build}/dist.stamp
  COMMAND ${CMAKE_COMMAND} -E env BRINMOOR_BUILD_DIR=${CMAKE_BINARY_DIR}
          ${BRINMOOR_NODE} ${web_source}/build_support/in_build.mjs build --outDir ${web_dist} --emptyOutDir --logLevel warn
  COMMAND ${CMAKE_COMMAND} -E touch ${web_build}/dist.stamp
  DEPENDS ${web_build}/npm-ci.stamp ${web_inputs}
  WORKING_DIRECTORY ${web_build}
  COMMENT "Building the web client (vite build)"
  VERBATIM)

# The same client with the taps the browser tests and the benchmark read (vite build --mode
# taps): the relay serves it only when BRINMOOR_TEST_WEB_ROOT names its folder, as their
# harness (web/e2e/harness.ts) does. After the build above, which checked the types.
#
# The browser suites, their harness and the benchmark are TypeScript, which Node does not
# run: they are type-checked and compiled into BUILD/web/e2e-js (e2e/*.js there), from a
# copy of web/ of their own, when they or the page's sources their types come from change.
if(BRINMOOR_BUILD_TESTS OR BRINMOOR_BUILD_BENCH)
  add_custom_command(
    OUTPUT ${web_build}/dist-taps.stamp
    COMMAND ${CMAKE_COMMAND} -E env BRINMOOR_BUILD_DIR=${CMAKE_BINARY_DIR}
            ${BRINMOOR_NODE} ${web_source}/build_support/in_build.mjs taps --outDir ${web_build}/dist-taps --emptyOutDir --logLevel warn
    COMMAND ${CMAKE_COMMAND} -E touch ${web_build}/dist-taps.stamp
    DEPENDS ${web_build}/dist.stamp
    WORKING_DIRECTORY ${web_build}
    COMMENT "Building the web client with the test taps (vite build --mode taps)"
    VERBATIM)
  add_custom_target(brinmoor_web_taps ALL DEPENDS ${web_build}/dist-taps.stamp)

  file(GLOB web_suite_inputs CONFIGURE_DEPENDS ${web_source}/e2e/*)
  add_custom_command(
    OUTPUT ${web_build}/e2e-js.stamp
    COMMAND ${CMAKE_COMMAND} -E env BRINMOOR_BUILD_DIR=${CMAKE_BINARY_DIR}
            ${BRINMOOR_NODE} ${web_source}/build_support/in_build.mjs suites
    COMMAND ${CMAKE_COMMAND} -E touch ${web_build}/e2e-js.stamp
    DEPENDS ${web_build}/npm-ci.stamp ${web_suite_inputs} ${web_inputs} ${web_source}/tsconfig.e2e.json
    WORKING_DIRECTORY ${web_build}
    COMMENT "Compiling the browser tests and the web benchmark (tsc)"
    VERBATIM)
  add_custom_target(brinmoor_web_suites ALL DEPENDS ${web_build}/e2e-js.stamp)
endif()

# The file names change with every build (they carry content hashes), so the .qrc is
# written after the build, listing what is there.
add_custom_command(
  OUTPUT ${web_build}/brinmoor_web.cpp
  COMMAND ${CMAKE_COMMAND} -DDIST=${web_dist} -DQRC=${web_build}/brinmoor_web.qrc
          -P ${PROJECT_SOURCE_DIR}/cmake/web_qrc.cmake
  COMMAND Qt6::rcc --name brinmoor_web --no-compress -o ${web_build}/brinmoor_web.cpp ${web_build}/brinmoor_web.qrc
  DEPENDS ${web_build}/dist.stamp ${PROJECT_SOURCE_DIR}/cmake/web_qrc.cmake
  COMMENT "Embedding the web client"
  VERBATIM)

set(BRINMOOR_WEB_RESOURCE ${web_build}/brinmoor_web.cpp)
