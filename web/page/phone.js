// The page on a phone: Web Audio plays through the ring/silent switch only in
// the "playback" audio session; audio starts on the first touch; the page
// works offline once visited (its service worker keeps its files).
import { audioContext } from './page.js';

if (navigator.audioSession) {
  try {
    navigator.audioSession.type = 'playback';
  } catch {
    // a browser that lists the type but refuses it plays as before
  }
}

const resume = () => audioContext().resume();
document.addEventListener('touchstart', resume, { once: true, passive: true });
document.addEventListener('pointerdown', resume, { once: true, passive: true });

if ('serviceWorker' in navigator && window.isSecureContext) {
  navigator.serviceWorker.register(new URL('service-worker.js', import.meta.url))
    .catch((error) => console.info(`nimbara: no offline copy: ${error.message}`));
}
