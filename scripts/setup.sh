#!/usr/bin/env bash
# Installs what the project needs beyond a stock Debian 12 machine with g++,
# CMake and GoogleTest. Safe to run again: it installs only what is missing.
set -euo pipefail

packages=(
  cmake g++ make ninja-build pkg-config   # CI builds with Ninja, make stays the default
  libgtest-dev libgmock-dev libbenchmark-dev
  libinih-dev            # the simulator's configuration files
  v4l-utils              # v4l2-ctl, a V4L2 client we did not write, runs on the simulator
  libcli11-dev libpng-dev libyuv-dev nlohmann-json3-dev   # zelisp-cam
  libfreetype-dev fonts-dejavu-core                        # zelisp-cam's contact-sheet labels
  valgrind gcovr cppcheck clang-tidy
  clang                  # the clang build of CI's configs stage
  python3                # bench/run_benchmarks.py writes docs/performance.md
  # GStreamer plugin (gst/) and zelisp-rtsp, and the stock elements its tests and pipelines use
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libgstrtspserver-1.0-dev gstreamer1.0-tools
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly
  gstreamer1.0-rtsp
  gstreamer1.0-plugins-base-apps   # gst-device-monitor-1.0, which the device provider's test runs
  ffmpeg                 # ffprobe and ffmpeg as RTSP clients of zelisp-rtsp's tests
  # the rig test (tests/rig, scripts/sim-rig.sh): boards in network namespaces (ip) with a PTP grandmaster
  iproute2 linuxptp
  # Python package (python/): Debian's interpreter, numpy, OpenCV for the recipes, pytest;
  # the wheel built and installed offline (build, setuptools, wheel, pybind11's Python side, venv
  # with its pip), and mypy for checking the stubs against the module
  pybind11-dev python3-dev python3-numpy python3-opencv python3-pytest
  python3-build python3-setuptools python3-wheel python3-pybind11 python3-venv mypy
  # web console (zelisp-cam serve) and its browser test
  libmicrohttpd-dev libturbojpeg0-dev chromium chromium-driver python3-selenium
  # its WebRTC view: webrtcbin (bad plugins), the ICE elements and libnice, the H.264 encoders
  libgstreamer-plugins-bad1.0-dev gstreamer1.0-nice libnice-dev
  openssl iproute2       # its tests: a TLS certificate, a network namespace for a console beyond loopback
  # man pages and Debian packages
  help2man dpkg-dev file lintian
)
if [ "${ZELISP_SETUP_CROSS:-0}" = 1 ]; then
  # The Arm64 build (scripts/cross-test.sh): the cross compiler, qemu to run
  # the tests, and the target's libraries through Debian multiarch.
  packages+=(g++-aarch64-linux-gnu qemu-user libinih-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64
             libpng-dev:arm64 libturbojpeg0-dev:arm64 libyuv-dev:arm64 libfreetype-dev:arm64)
fi

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
if [ "${ZELISP_SETUP_CROSS:-0}" = 1 ] && ! dpkg --print-foreign-architectures | grep -qx arm64; then
  $sudo dpkg --add-architecture arm64
fi
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
