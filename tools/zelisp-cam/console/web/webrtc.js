// WebRTC view of one camera view, the WHEP way: an offer with every ICE
// candidate gathered (the console answers without trickle), POSTed to the
// view's /whep address; the answer's Location ends the session on DELETE.
'use strict';

const GATHERING_LIMIT_MS = 3000;

function gatheringComplete(pc) {
  if (pc.iceGatheringState === 'complete') return Promise.resolve();
  return new Promise((resolve) => {
    const timer = setTimeout(resolve, GATHERING_LIMIT_MS); // host candidates come at once; do not hang on others
    pc.addEventListener('icegatheringstatechange', () => {
      if (pc.iceGatheringState === 'complete') { clearTimeout(timer); resolve(); }
    });
  });
}

// Plays the view's WebRTC stream in `video`. Resolves with a session whose
// close() ends it, or rejects with the console's reason. `onEnd` is called
// when the connection fails or closes by itself.
export async function playWebRtc(video, whepUrl, onEnd) {
  const pc = new RTCPeerConnection({ bundlePolicy: 'max-bundle', iceServers: [] });
  pc.addTransceiver('video', { direction: 'recvonly' });
  pc.addEventListener('track', (event) => { video.srcObject = event.streams[0] || new MediaStream([event.track]); });
  await pc.setLocalDescription(await pc.createOffer());
  await gatheringComplete(pc);
  let location = null;
  try {
    const response = await fetch(whepUrl, {
      method: 'POST', headers: { 'Content-Type': 'application/sdp' }, body: pc.localDescription.sdp,
    });
    if (response.status !== 201) {
      const reason = await response.json().catch(() => ({}));
      throw new Error(reason.error || `${response.status} ${response.statusText}`);
    }
    location = response.headers.get('Location');
    await pc.setRemoteDescription({ type: 'answer', sdp: await response.text() });
  } catch (error) {
    pc.close();
    throw error;
  }
  let closed = false;
  const close = () => {
    if (closed) return;
    closed = true;
    pc.close();
    video.srcObject = null;
    if (location) fetch(location, { method: 'DELETE' }).catch(() => {});
  };
  pc.addEventListener('connectionstatechange', () => {
    if (['failed', 'closed'].includes(pc.connectionState) && !closed) { close(); if (onEnd) onEnd(); }
  });
  return { pc, close, location };
}
