#!/bin/bash
# Tries the Debian packages of a folder as a user of a fresh Debian 12 would: installs them, renders a scene,
# builds the examples against the library, runs them, and removes all again.
#
#   package-test.sh [FOLDER]    FOLDER holds the .deb files, by default build/packages
#
# Needs root, debootstrap, and the right to make mount namespaces. The Debian mirror is that of the machine's apt,
# or $MIRROR. The new system lies below $TMPDIR until the end.
set -euo pipefail

source=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
suite=bookworm

Fail() {
  echo "package-test: $*" >&2
  exit 1
}

[ "$(id -u)" = 0 ] || Fail "needs root"
folder=$(realpath "${1:-$source/build/packages}")
compgen -G "$folder/zephlore_*.deb" > /dev/null || Fail "there is no package in '$folder'"
PATH=$PATH:/usr/sbin:/sbin
command -v debootstrap > /dev/null || Fail "debootstrap is missing"

work=$(mktemp -d "${TMPDIR:-/tmp}/zephlore-package-test-XXXXXX")
root=$work/root
trap 'rm -rf --one-file-system "$work"' EXIT
trap 'exit 1' HUP INT TERM
mkdir "$root"
chmod 755 "$work"  # apt's own user reads packages inside

environment=(PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive)
for name in http_proxy https_proxy no_proxy OMP_NUM_THREADS OMP_WAIT_POLICY; do
  [ -z "${!name-}" ] || environment+=("$name=${!name}")
done

# Runs the shell script on standard input inside, in /root. Its mounts and processes end with it. In it, None
# fails if the command it is given prints anything.
Inside() {
  local script
  script="cd /root; None() { if \"\$@\" | grep .; then return 1; fi; }; $(cat)"
  unshare --mount --pid --fork --kill-child --mount-proc="$root/proc" \
    chroot "$root" /usr/bin/env -i "${environment[@]}" /bin/bash -euo pipefail -c "$script" < /dev/null
}

# Runs a function and tells its title and time; lines that begin with "= " are shown, the others if it fails.
Step() {
  local title=$1 start=$SECONDS status=0
  shift
  set +e  # the subshell would else be a condition, in which its own -e means nothing
  (set -e; "$@") > "$work/log" 2>&1
  status=$?
  set -e
  if [ $status != 0 ]; then
    cat "$work/log" >&2
    Fail "failed: $title"
  fi
  printf '%4d s  %s\n' $((SECONDS - start)) "$title"
  sed -n 's/^= /        /p' "$work/log"
}

# URI, suite and component of every archive of $suite that the machine's apt knows.
Archives() {
  # shellcheck disable=SC2016  # apt's variables
  apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
    awk -v suite="$suite" '$2 ~ "^" suite "(-updates|-security)?$" && $3 == "main"'
}

MakeSystem() {
  local mirror=${MIRROR:-$(Archives | awk -v suite="$suite" '$2 == suite && !seen++ { print $1 }')}
  [ -n "$mirror" ] || { echo "apt knows no mirror of $suite: set MIRROR"; return 1; }
  debootstrap --variant=minbase --include=ca-certificates "$suite" "$root" "$mirror"
  if [ -z "${MIRROR-}" ]; then
    Archives | sed 's/^/deb /' > "$root/etc/apt/sources.list"
  fi
  # Proxies, and what an archive that stands still needs.
  apt-config dump | { grep -iE '^Acquire::(https?::Proxy|Check-Date|Check-Valid-Until|Retries) ' || true; } \
    > "$root/etc/apt/apt.conf.d/90machine"
  cp /etc/hosts /etc/resolv.conf "$root/etc/"
  mkdir "$root/root/packages"
  cp "$folder"/*.deb "$root/root/packages/"
  Inside << 'SCRIPT'
apt-get update -q
chmod 755 /root  # apt's own user reads the packages
echo "= $(dpkg -l | grep -c ^ii) packages, $(du -sxm --exclude=/proc / | cut -f1) MB"
SCRIPT
}

InstallProgram() {
  Inside << 'SCRIPT'
apt-get install -q -y --no-install-recommends ./packages/zephlore_*.deb
zephlore --version
ldd /usr/bin/zephlore > libraries
None sed -n '/not found/p; /libGL/p; /libX11/p; /assimp/p' libraries
None dpkg --verify zephlore
for verb in $(sed -n 's/^  \([a-z]*\)  .*/\1/p' <(zephlore --help | sed '1,/^Subcommands/d')); do
  ls "/usr/share/man/man1/zephlore-$verb.1.gz"
done
test -s /usr/share/doc/zephlore/copyright
! zephlore render nowhere --preview
echo "= $(dpkg -l | grep -c ^ii) packages, $(du -sxm --exclude=/proc / | cut -f1) MB"
SCRIPT
}

# Two commands behind the installation of the program: a scene of its own, and its picture.
FirstPicture() {
  Inside << 'SCRIPT'
zephlore new first
zephlore render first --resolution 240x135 --sample 8 --strict --output first.png
test "$(stat -c %s first.png)" -gt 10000
SCRIPT
}

InstallRest() {
  Inside << 'SCRIPT'
apt-get install -q -y --no-install-recommends ./packages/zephlore-*.deb bash-completion man-db
None dpkg --verify zephlore-scenes zephlore-preview zephlore-import
printf 'v 0 0 0\nv 1 0 0\nv 0 1 0\nv 0 0 1\nf 1 3 2\nf 1 2 4\nf 1 4 3\nf 2 3 4\n' > model.obj
zephlore render model.obj --resolution 240x135 --sample 8 --output model.png
test "$(stat -c %s model.png)" -gt 10000
ldd /usr/lib/*/zephlore/zephlore-preview.so > libraries
None sed -n '/not found/p' libraries
bash -i -c '. /usr/share/bash-completion/bash_completion; _completion_loader zephlore
  COMP_WORDS=(zephlore render --den) COMP_CWORD=2; _zephlore zephlore; printf "= %s\n" "${COMPREPLY[*]}"' 2> /dev/null |
  grep -e --denoise
echo "= $(dpkg -l | grep -c ^ii) packages, $(du -sxm --exclude=/proc / | cut -f1) MB"
SCRIPT
}

# A .pfm ends in three floats a pixel.
Render() {
  Inside << 'SCRIPT'
for scene in /usr/share/zephlore/scenes/*; do zephlore check "$scene"; done
zephlore render /usr/share/zephlore/scenes/courtyard --resolution 192x108 --sample 4 --seed 1 --strict \
  --output courtyard.pfm
tail -c $((192 * 108 * 3 * 4)) courtyard.pfm | od -An -v -t f4 | awk '
  { for (i = 1; i <= NF; i++) { n++; sum += $i; wrong += $i !~ /^[0-9.e+-]+$/; lit += $i > 0 } }
  END {
    printf "= courtyard: mean %.3f, %.1f %% above 0, %d not finite\n", sum / n, 100 * lit / n, wrong
    exit !(n == 192 * 108 * 3 && wrong == 0 && lit > 0.9 * n && sum > 0.01 * n)
  }'
zephlore view courtyard.pfm courtyard.png
test "$(stat -c %s courtyard.png)" -gt 10000  # of one colour it would take some hundred bytes
SCRIPT
}

InstallLibrary() {
  Inside << 'SCRIPT'
apt-get install -q -y --no-install-recommends ./packages/libzp*.deb g++ cmake make pkg-config
ldconfig -p | grep libzp.so.1
ldd /usr/lib/*/libzp.so.1 > libraries
None sed -n '/not found/p' libraries
None dpkg --verify libzp1 libzp-dev
SCRIPT
}

InstallModule() {
  Inside << 'SCRIPT'
apt-get install -q -y --no-install-recommends ./packages/python3-zp_*.deb
None dpkg --verify python3-zp
python3 -c 'import zp; print("=", zp.__file__)'
SCRIPT
}

# The folder of examples as the project it is; its first program once more, by pkg-config.
BuildExamples() {
  cp -r "$source/examples" "$root/root/examples"
  Inside << 'SCRIPT'
cmake -S examples -B build -DCMAKE_BUILD_TYPE=Release -DCMAKE_RUNTIME_OUTPUT_DIRECTORY=/root/bin
cmake --build build
first=$(printf '%s\n' examples/*.cpp | head -n 1)
# shellcheck disable=SC2046
g++ -std=c++20 -O2 "$first" -o "bin/$(basename "$first" .cpp)-by-pkg-config" $(pkg-config --cflags --libs zp)
ldd bin/* > libraries
None sed -n '/not found/p' libraries
echo "= $(echo bin/*)"
SCRIPT
}

# Words of every example: the file or folder that it makes, the width in pixels, the number of passes. Each
# looks at its pictures by itself.
RunExamples() {
  Inside << 'SCRIPT'
for program in bin/* examples/*.py; do
  case $program in
    *'*'*) continue ;;
    *.py) python3 -c 'import zp' || continue; run=(python3 "/root/$program") ;;
    *) run=("/root/$program") ;;
  esac
  folder=runs/$(basename "$program")
  mkdir -p "$folder"
  (cd "$folder" && "${run[@]}" picture.pfm 96 4)
  echo "= $folder: $(find "$folder" -type f -size +1k | wc -l) images"
  test -n "$(find "$folder" -type f -size +1k)"
done
SCRIPT
}

Remove() {
  Inside << 'SCRIPT'
apt-get purge -q -y $(dpkg -l 'zephlore*' 'libzp*' 'python3-zp' 2> /dev/null | awk '/^ii/ { print $2 }')
None find / -xdev \( -path /root -o -path /proc -o -path /var/log \) -prune -o \
  \( -name '*zephlore*' -o -name 'libzp*' -o -name zp.pc -o -name zp.h -o -path '*/zp' \) -print
SCRIPT
}

total=$SECONDS
ls -sh1 "$folder"/*.deb
Step "a fresh Debian 12" MakeSystem
Step "the program is installed" InstallProgram
Step "a new scene is rendered" FirstPicture
Step "scenes, the window and completion are installed" InstallRest
Step "a scene of the gallery is rendered" Render
Step "the library and a compiler are installed" InstallLibrary
if compgen -G "$folder/python3-zp_*.deb" > /dev/null; then
  Step "the module for Python is installed" InstallModule
fi
if [ -e "$source/examples/CMakeLists.txt" ]; then
  Step "the examples are built" BuildExamples
  Step "the examples are run" RunExamples
fi
Step "the packages are removed" Remove
printf '%4d s  in all\n' $((SECONDS - total))
