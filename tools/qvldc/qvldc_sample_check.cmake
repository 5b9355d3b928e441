# End-to-end check of qvldc with the sample configuration (ctest runs it when the tools are
# built): render the 640 x 480 sample, correct it with the faces the renderer wrote, with the
# faces the detector finds, and as a dump in batch mode.
# -DQVLDC=<tool> -DCONFIG=<xml> -DWORK=<scratch directory>
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

function(run_qvldc out_var)
  execute_process(COMMAND ${QVLDC} ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "qvldc ${ARGN} failed (${rc}):\n${out}\n${err}")
  endif()
  set(${out_var} "${out}" PARENT_SCOPE)
endfunction()

function(expect text pattern)
  if(NOT text MATCHES "${pattern}")
    message(FATAL_ERROR "expected '${pattern}' in:\n${text}")
  endif()
endfunction()

run_qvldc(out --render-sample ${WORK} --config ${CONFIG} --size 640x480)
file(STRINGS ${WORK}/sample_640x480_faces.txt faces REGEX "^[0-9]+,[0-9]+,[0-9]+,[0-9]+$")
list(LENGTH faces face_count)
if(NOT face_count EQUAL 2)
  message(FATAL_ERROR "the sample should have 2 faces, its file lists ${face_count}")
endif()

run_qvldc(out --in ${WORK}/sample_640x480.png --config ${CONFIG} --faces-file ${WORK}/sample_640x480_faces.txt
          --before-png ${WORK}/before.png --out-png ${WORK}/after.png --overlay ${WORK}/overlay.png --quiet)
expect("${out}" "frame 640x480 NV21, ISO 100, faces 2 given / 2 valid")
expect("${out}" "decision: LDC enable [01], FDC enable [01], FDC mode [0-2]")
expect("${out}" "path: [a-z]")
foreach(png before after overlay)
  if(NOT EXISTS ${WORK}/${png}.png)
    message(FATAL_ERROR "${png}.png was not written")
  endif()
endforeach()

# The stylised faces are meant to be found by OpenCV's frontal-face cascade too.
run_qvldc(out --in ${WORK}/sample_640x480.png --config ${CONFIG} --detect-faces --quiet)
expect("${out}" "the detector found 2 face")

run_qvldc(out --batch ${WORK}/dumps --config ${CONFIG} --out-dir ${WORK}/batch --quiet)
expect("${out}" "1 frame\\(s\\), 0 failed")
file(READ ${WORK}/batch/summary.csv csv)
expect("${csv}" "\",640,480,100,2,2,")
