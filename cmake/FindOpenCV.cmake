# Finds OpenCV from Debian's component packages (libopencv-core-dev, -imgproc-dev, -calib3d-dev,
# -imgcodecs-dev, -objdetect-dev), which ship headers and libraries but no OpenCVConfig.cmake.
# Sets OpenCV_FOUND, OpenCV_INCLUDE_DIRS and OpenCV_LIBS for the requested components
# (core is always included).
find_path(OpenCV_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4)
set(OpenCV_LIBS "")
set(_ldc_opencv_missing "")
set(_ldc_opencv_components core ${OpenCV_FIND_COMPONENTS})
list(REMOVE_DUPLICATES _ldc_opencv_components)
foreach(c ${_ldc_opencv_components})
  find_library(OpenCV_${c}_LIBRARY opencv_${c})
  if(OpenCV_${c}_LIBRARY)
    list(APPEND OpenCV_LIBS ${OpenCV_${c}_LIBRARY})
  else()
    list(APPEND _ldc_opencv_missing opencv_${c})
  endif()
endforeach()
set(OpenCV_INCLUDE_DIRS ${OpenCV_INCLUDE_DIR})
string(REPLACE ";" " " _ldc_opencv_missing_text "${_ldc_opencv_missing}")
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OpenCV REQUIRED_VARS OpenCV_INCLUDE_DIR OpenCV_core_LIBRARY
  REASON_FAILURE_MESSAGE "missing: ${_ldc_opencv_missing_text}")
if(_ldc_opencv_missing)
  set(OpenCV_FOUND FALSE)
endif()
