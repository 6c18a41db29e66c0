'use strict';
const $ = id => document.getElementById(id);
const ms = v => v === null ? '-' : v.toFixed(1) + ' ms';
function showFigures(f) {
  const banner = $('banner');
  if (f.channel === 'pulling') {
    banner.className = f.camera === 'delivering' ? 'live' : 'wait';
    banner.textContent = f.camera === 'delivering' ? 'live' : 'camera ' + f.camera;
  } else {
    banner.className = f.channel === 'connecting' ? 'wait' : 'bad';
    banner.textContent = f.message || f.channel;
  }
  $('f-channel').textContent = f.channel;
  $('f-camera').textContent = f.camera;
  $('f-fps').textContent = f.fps.toFixed(1);
  $('f-p50').textContent = ms(f.latency_p50_ms);
  $('f-p99').textContent = ms(f.latency_p99_ms);
  $('f-pictures').textContent = f.pictures;
  $('f-seq').textContent = f.seq === null ? '-' : f.seq;
  $('f-age').textContent = f.picture_age_ms === null ? '-' : (f.picture_age_ms / 1000).toFixed(1) + ' s';
  $('f-waits').textContent = f.waits;
  $('f-faults').textContent = f.faults;
  $('f-logins').textContent = f.logins;
  $('f-streams').textContent = f.streams;
  $('option').textContent = f.option || '(no picture yet)';
  $('states').textContent = f.states === null ? '(no states file: the channel is not running)' : f.states;
}
async function figures() {
  for (;;) {
    try {
      const r = await fetch('figures.json', {cache: 'no-store'});
      showFigures(await r.json());
    } catch (e) {
      $('banner').className = 'bad';
      $('banner').textContent = 'the view itself does not answer (ostrel-viewer stopped?)';
    }
    await new Promise(done => setTimeout(done, 500));
  }
}
async function pictures(shown) {
  for (;;) {
    try {
      const r = await fetch('latest.jpg?after=' + shown, {cache: 'no-store'});
      if (r.ok) {
        shown = Number(r.headers.get('X-Ostrel-Picture'));
        const url = URL.createObjectURL(await r.blob());
        const img = $('live'), old = img.src;
        img.src = url;
        if (old.startsWith('blob:')) URL.revokeObjectURL(old);
        continue;
      }
    } catch (e) {}
    await new Promise(done => setTimeout(done, 1000));
  }
}
