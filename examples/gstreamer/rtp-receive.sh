#!/bin/sh
# Receives the RTP/JPEG stream of rtp-send.sh and shows it.
#
#   rtp-receive.sh [PORT]                   default: 5000
#
# SINK replaces the display, e.g. to keep one frame as a PNG:
#   SINK='pngenc snapshot=true ! filesink location=frame.png' rtp-receive.sh
set -eu
port=${1:-5000}
sink=${SINK:-autovideosink}
# shellcheck disable=SC2086 # SINK is a pipeline fragment
exec gst-launch-1.0 \
  udpsrc port="$port" caps="application/x-rtp,media=video,clock-rate=90000,encoding-name=JPEG,payload=26" ! \
  rtpjpegdepay ! jpegdec ! videoconvert ! $sink
