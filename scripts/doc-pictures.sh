#!/bin/bash
# Renders pictures of docs/ again, each as its function below says, and makes them small.
#
#   doc-pictures.sh [--shrink] [NAME...]
#
# NAME is a picture without its .png; without one, all are made. With --shrink nothing is rendered: the pictures that
# are there are only made smaller. Seeds are fixed, so a picture differs only where the program or its scene does;
# commit one only when the change can be seen. Needs a build of the program in build/$PRESET (release), ImageMagick and
# numpy. docs/error-over-time.svg is made by bench/error_over_time.py; docs/hair-closeup.png is scenes/pompoms from
# near, by a camera that was not kept: --shrink alone takes its name.
set -euo pipefail
export LC_ALL=C.UTF-8

cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=$PWD/build/${PRESET:-release}
limit=300000  # bytes: what the picture of a page may take
work=$(mktemp -d "${TMPDIR:-/tmp}/zephlore-pictures-XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM

# Render PICTURE SCENE [OPTION...] leaves $work/PICTURE.png.
Render() {
  local picture=$work/$1 scene=$2
  shift 2
  "$build/zephlore" render "$scene" --seed 1 --quiet --progress --output "$picture.pfm" "$@"
  "$build/zephlore" view "$picture.pfm" "$picture.png"
}

# CopyScene NAME prints the folder of a copy, for Set to change.
CopyScene() {
  rm -rf "$work/scene"
  cp -r "scenes/$1" "$work/scene"
  echo "$work/scene"
}

# Set FILE KEYWORD VALUE: the first line of the keyword in a file of the copied scene.
Set() {
  grep -q "^ *$2 " "$work/scene/$1" || { echo "doc-pictures: no '$2' in $1" >&2; exit 1; }
  sed -i -E "0,/^ *$2 /s|^( *)$2 .*|\1$2 $3|" "$work/scene/$1"
}

# ForScreen FILE EXPRESSION: numbers that are no light. What the expression makes of them, v, is shown as it is, so
# the screen's curve, which comes later, is taken back.
ForScreen() {
  python3 - "$work/images/$1.pfm" "$2" << 'END'
import sys
import numpy as np
path, expression = sys.argv[1:]
with open(path, "rb") as file:
    header = [file.readline() for _ in range(3)]
    v = np.frombuffer(file.read(), np.float32)
v = np.clip(eval(expression), 0, 1)
v = np.where(v <= 0.04045, v / 12.92, ((v + 0.055) / 1.055) ** 2.4)
with open(path, "wb") as file:
    file.writelines(header)
    file.write(v.astype(np.float32).tobytes())
END
}

# Sheet PICTURE COLUMNS FILE...: pictures side by side with a white line between.
Sheet() {
  local picture=$1 columns=$2
  shift 2
  montage "$@" -tile "${columns}x" -background white -geometry +2+2 -depth 8 "$work/$picture.png"
}

# RunExample NAME [ARGUMENT...]: one of the two programs, built against the library as it stands in the build folder.
RunExample() {
  local name=$1
  shift
  "${CXX:-c++}" -std=c++17 -O2 "examples/$name.cpp" -Isrc/frame -L"$build" -Wl,-rpath,"$build" -lzp -o "$work/$name"
  "$work/$name" "$@" > /dev/null
}

# One function a picture.

courtyard() { Render courtyard scenes/courtyard; }
still_life() { Render still_life scenes/still_life; }
cistern() { Render cistern scenes/cistern --threads 1; }           # with cells, other threads repeat to no bit
gallery() {
  Render gallery scenes/gallery
  convert "$work/gallery.png" -resize 800x450 "$work/gallery.png"  # its grain takes too much space
}
beads() { Render beads scenes/beads; }
flight() { Render flight scenes/flight; }
pompoms() { Render pompoms scenes/pompoms; }
relief() { Render relief scenes/relief; }

# The noise of paths and of cells on the far wall, twice as large.
gather-modes() {
  local scene
  scene=$(CopyScene cistern)
  Set light/light.zp photon 3000000  # and the sky's
  Set render/render.zp sample 4
  local view=(--resolution 480x270 --sample 32)
  Render cells "$scene" "${view[@]}" --threads 1
  Set render/render.zp resolution 0
  Set render/render.zp bounce 16
  Render paths "$scene" "${view[@]}"
  local half
  for half in paths cells; do
    convert "$work/$half.png" -crop 160x110+190+10 +repage -filter point -resize 200% "$work/$half.png"
  done
  Sheet gather-modes 2 "$work"/{paths,cells}.png
}

# Caustics whose photons are looked for in three circles.
gather-radius() {
  local scene radius
  scene=$(CopyScene cistern)
  Set light/light.zp photon 6000000  # of the sun
  for radius in 0.002 0.02 0.1; do
    Set render/render.zp radius "$radius"
    Render "radius-$radius" "$scene" --resolution 480x270 --threads 1
    convert "$work/radius-$radius.png" -crop 200x110+130+155 +repage "$work/radius-$radius.png"
  done
  Sheet gather-radius 3 "$work"/radius-{0.002,0.02,0.1}.png
}

example-scene() {
  [ -e "$work/images/beauty.pfm" ] || RunExample build_scene "$work/images" 640 64
  "$build/zephlore" view "$work/images/beauty.pfm" "$work/example-scene.png"
}

example-aovs() {
  [ -e "$work/images/beauty.pfm" ] || RunExample build_scene "$work/images" 640 64
  ForScreen depth 'np.where(v > 0, 1 - v / 25, 0)'  # white at the lens, black 25 metres away
  ForScreen normal v
  local image images=()
  for image in beauty depth normal lambertian glossy specular light_sky light_sun; do
    "$build/zephlore" view "$work/images/$image.pfm" "$work/images/$image.png"
    convert "$work/images/$image.png" -resize 300x169 "$work/images/$image.png"
    images+=("$work/images/$image.png")
  done
  Sheet example-aovs 4 "${images[@]}"
}

example-progressive() {
  RunExample progressive "$work/progressive.pfm"
  "$build/zephlore" view "$work/progressive.pfm" "$work/example-progressive.png"
}

# Scenes of scenes/formats by format 1, left, and 2. The tangle of format 1 takes most of a processor's time.
format-2() {
  local scene format view images=()
  for scene in lamp screen leaves fog groom; do
    view=(--resolution 300x200)
    [ "$scene" = groom ] && view=(--resolution 150x100 --sample 2)
    for format in 1 2; do
      Render "$scene-$format" "scenes/formats/$scene" --format "$format" "${view[@]}"
      convert "$work/$scene-$format.png" -filter point -resize 300x200 "$work/$scene-$format.png"
      images+=("$work/$scene-$format.png")
    done
  done
  Sheet format-2 2 "${images[@]}"
}

# Blender's scenes, where Blender is installed.
blender-cycles() {
  ZEPHLORE_PROGRAM=$build/zephlore blender -b --factory-startup --python-exit-code 1 -P bench/blender_scenes.py -- \
    "$work/blender" --samples 64 > /dev/null
  convert "$work/blender/sheet.png" -resize 560x "$work/blender-cycles.png"
}

# Shrink PICTURE: what is too large gets a palette of 256 colours, dithered; the others stay as they are.
Shrink() {
  if [ "$(stat -c %s "$1")" -ge "$limit" ]; then
    convert "$1" -strip -dither FloydSteinberg -colors 256 -define png:compression-level=9 "png8:$1"
  fi
  local size
  size=$(stat -c %s "$1")
  if [ "$size" -ge "$limit" ]; then
    echo "doc-pictures: $1 takes $size bytes, $limit or more; render it smaller" >&2
    exit 1
  fi
}

all=(courtyard still_life gallery cistern beads flight pompoms relief gather-modes gather-radius
     example-scene example-aovs example-progressive format-2)
if command -v blender > /dev/null; then all+=(blender-cycles); fi
render=true
if [ "${1-}" = --shrink ]; then
  render=false
  shift
  all+=(hair-closeup)
fi
[ $# -gt 0 ] || set -- "${all[@]}"
for name; do
  [[ " ${all[*]} " == *" $name "* ]] || { echo "doc-pictures: no picture '$name'; there are ${all[*]}" >&2; exit 2; }
done
for name; do
  picture=$work/$name.png
  if $render; then "$name"; else cp "docs/$name.png" "$picture"; fi
  Shrink "$picture"
  cp "$picture" "docs/$name.png"
done
