// Cameras and their AOVs.

#include "tables.h"

namespace zp::python {

using namespace py::literals;

void DefineCameras(py::module_& m) {
  DefineAdd<kCameras>(m, "add_camera", zpAddCamera,
                      "Appends a camera and returns its index. The first one is rendered.\n"
                      "position, target, up vector and field of view have no default: state them.");
  DefineSetter<kCameras>(m, "set_camera_name", zpSetCameraName, "camera"_a, "name"_a,
                         "Free text. Default empty.");
  DefineSetter<kCameras>(m, "set_camera_position", zpSetCameraPosition, "camera"_a, "x"_a, "y"_a, "z"_a,
                         "Where the pose stands, scene units.");
  DefineSetter<kCameras>(m, "set_camera_target", zpSetCameraTarget, "camera"_a, "x"_a, "y"_a, "z"_a,
                         "What the pose looks at and focuses on, scene units.");
  DefineSetter<kCameras>(m, "set_camera_up_vector", zpSetCameraUpVector, "camera"_a, "x"_a, "y"_a, "z"_a,
                         "Up in the picture; of any length.");
  DefineSetter<kCameras>(m, "set_camera_bokeh", zpSetCameraBokeh, "camera"_a, "degrees"_a,
                         "Half angle of the lens cone; 0, the default, is a pinhole.");
  DefineSetter<kCameras>(m, "set_camera_fov", zpSetCameraFOV, "camera"_a, "degrees"_a,
                         "Full horizontal angle of view.");
  DefineSetter<kCameras>(m, "set_camera_angle_measure", zpSetCameraAngleMeasure, "camera"_a, "measure"_a,
                         "Any int; kept, without effect: angles are in degrees.");
  DefineSetter<kCameras>(m, "set_camera_exposure", zpSetCameraExposure, "camera"_a, "r"_a, "g"_a, "b"_a,
                         "Kept, without effect. Default 1.");
  DefineSetter<kCameras>(m, "set_camera_sample", zpSetCameraSample, "camera"_a, "sample"_a,
                         "Passes: samples of each pixel. 1 to 65535, default 17.");
  DefineSetter<kCameras>(
      m, "set_camera_time", zpSetCameraTime, "camera"_a, "time"_a,
      "The pose that position, target, up vector, bokeh and field of view go to from now on:\n"
      "shutter close from 0.5 up, else shutter open, the default. What only one is told holds for both.");
  DefineSetter<kCameras>(m, "set_camera_projection", zpSetCameraProjection, "camera"_a, "projection"_a,
                         "Default PERSPECTIVE.");
  DefineSetter<kCameras>(m, "set_camera_resolution", zpSetCameraResolution, "camera"_a, "width"_a, "height"_a,
                         "Pixels. Default 960, 540.");
  DefineSetter<kCameras>(
      m, "set_camera_region", zpSetCameraRegion, "camera"_a, "x_min"_a, "y_min"_a, "x_max"_a, "y_max"_a,
      "What is rendered of the picture, pixels from the top left; the maxima are one behind.\n"
      "Default the whole picture.");
  DefineAdd<kCameraAovs>(m, "add_camera_aov", zpAddCameraAOV, "camera"_a,
                         "Appends an image and returns its index.\n"
                         "0 is the beauty image, so the first call returns 1.");
  DefineSetter<kCameraAovs>(
      m, "set_camera_aov_channel", zpSetCameraAOVChannel, "camera"_a, "aov"_a, "channel"_a,
      "What the image records: one channel, which replaces the earlier one. Default BEAUTY.");
  DefineSetter<kCameraAovs, Path>(
      m, "set_camera_aov_name", zpSetCameraAOVName, "camera"_a, "aov"_a, "name"_a,
      "The file to write; .pfm keeps all digits, .exr and .hdr nearly, others 8 bits of 0 to 1.\n"
      "Default of the beauty image: beauty-YYYYMMDD-HHMMSS.hdr, else none. Empty writes nothing.");
  DefineSetter<kCameraAovs>(
      m, "set_camera_aov_user_data", zpSetCameraAOVUserData, "camera"_a, "aov"_a, "name"_a,
      "The vertex data that an image of channel USER_DATA shows. Default \"undefined\".");
}

}  // namespace zp::python
