#!/bin/sh
# Sends one camera as RTP/JPEG over UDP: stock elements only, so any RTP
# receiver can play it (rtp-receive.sh, or an SDP file in a media player).
#
#   rtp-send.sh [CAMERA [HOST [PORT]]]      defaults: 0 127.0.0.1 5000
#
# On the simulated driver: zelisp-sim-run -- examples/gstreamer/rtp-send.sh
# (with GST_PLUGIN_PATH=build/gst when the plugin is not installed).
# NUM_BUFFERS=N stops after N frames.
set -eu
camera=${1:-0}
host=${2:-127.0.0.1}
port=${3:-5000}
exec gst-launch-1.0 -e \
  zelispsrc camera="$camera" num-buffers="${NUM_BUFFERS:--1}" ! videoconvert ! \
  jpegenc quality=85 ! rtpjpegpay ! udpsink host="$host" port="$port" sync=false
