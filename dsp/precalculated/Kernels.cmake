# Included from the root list so that the generated sources can join the library's objects.
# The kernels are generated into the build tree by a program that links the design code itself.
set(ORVANDELDSP_KERNEL_DIR ${CMAKE_CURRENT_BINARY_DIR}/generated/dsp/precalculated)
set(ORVANDELDSP_KERNEL_OUTPUTS
  ${ORVANDELDSP_KERNEL_DIR}/PrecalculatedBiQuadKernels.h
  ${ORVANDELDSP_KERNEL_DIR}/PrecalculatedBiQuadKernels.cpp)

# A cross build cannot run its own generator; it names a generator built for the host instead.
set(ORVANDELDSP_HOST_KERNEL_GENERATOR "" CACHE FILEPATH "Host build of orvandeldsp-kernel-generator")
if(CMAKE_CROSSCOMPILING AND ORVANDELDSP_HOST_KERNEL_GENERATOR)
  set(kernel_generator ${ORVANDELDSP_HOST_KERNEL_GENERATOR})
else()
  add_executable(orvandeldsp-kernel-generator
    dsp/precalculated/GenerateBiQuadKernels.cpp base/Assert.cpp base/String.cpp)
  target_include_directories(orvandeldsp-kernel-generator PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(orvandeldsp-kernel-generator PRIVATE PkgConfig::GLIB)
  set(kernel_generator orvandeldsp-kernel-generator)
endif()

add_custom_command(OUTPUT ${ORVANDELDSP_KERNEL_OUTPUTS}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${ORVANDELDSP_KERNEL_DIR}
  COMMAND ${kernel_generator} ${ORVANDELDSP_KERNEL_OUTPUTS}
  DEPENDS ${kernel_generator}
  COMMENT "Generating the precalculated biquad kernels"
  VERBATIM)

target_sources(orvandeldsp-objects PRIVATE dsp/precalculated/PrecalculatedBiQuad.cpp ${ORVANDELDSP_KERNEL_OUTPUTS})
