// Keeps the page's files so that it opens and plays offline after the first
// visit. Each request goes to the network first (the page stays current) and
// falls back to the copy kept.
const CACHE = 'nimbara-page-v2';
const FILES = [
  './', 'index.html', 'style.css', 'page.js', 'track.js', 'phone.js', 'listen-worklet.js',
  'manifest.webmanifest', 'icon.svg', 'icon-192.png', 'icon-512.png', 'icon-maskable-192.png',
  'icon-maskable-512.png', 'apple-touch-icon.png',
  'nimbara/nimbara.js', 'nimbara/core.js', 'nimbara/nimbara-glue.js', 'nimbara/nimbara-glue.wasm',
];

self.addEventListener('install', (event) => {
  event.waitUntil(caches.open(CACHE).then((cache) => cache.addAll(FILES)).then(() => self.skipWaiting()));
});

self.addEventListener('activate', (event) => {
  event.waitUntil(caches.keys()
    .then((names) => Promise.all(names.filter((n) => n !== CACHE).map((n) => caches.delete(n))))
    .then(() => self.clients.claim()));
});

self.addEventListener('fetch', (event) => {
  if (event.request.method !== 'GET' || new URL(event.request.url).origin !== self.location.origin) return;
  event.respondWith((async () => {
    const cache = await caches.open(CACHE);
    try {
      const response = await fetch(event.request);
      if (response.ok) await cache.put(event.request, response.clone());
      return response;
    } catch (error) {
      const kept = await cache.match(event.request, { ignoreSearch: true });
      if (kept) return kept;
      throw error;
    }
  })());
});
