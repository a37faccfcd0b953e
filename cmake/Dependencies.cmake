# Every C++ dependency and the version it must have, named once.
find_package(Eigen3 3.4 REQUIRED NO_MODULE)
if(FULLWAVEFORM_OPENMP)
  find_package(OpenMP REQUIRED COMPONENTS CXX)
endif()
if(FULLWAVEFORM_TESTS)
  find_package(GTest 1.12 REQUIRED)
endif()
