// A small static server for the built page: `node web/serve.js DIR [PORT]`
// listens on every interface (so a phone in the same network can open the
// page) and prints the addresses. The tests start it on a free port.
import { createServer } from 'node:http';
import { readFile } from 'node:fs/promises';
import { networkInterfaces } from 'node:os';
import { extname, join, normalize, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';

const TYPES = {
  '.html': 'text/html; charset=utf-8',
  '.js': 'text/javascript; charset=utf-8',
  '.css': 'text/css; charset=utf-8',
  '.wasm': 'application/wasm',
  '.json': 'application/json',
  '.png': 'image/png',
  '.wav': 'audio/wav',
  '.svg': 'image/svg+xml',
  '.webmanifest': 'application/manifest+json',
  '.webm': 'video/webm',
  '.vtt': 'text/vtt',
};

export function serve(root, port = 0, host = '0.0.0.0') {
  const base = resolve(root);
  const server = createServer(async (request, response) => {
    const path = decodeURIComponent(new URL(request.url, 'http://x').pathname);
    const file = normalize(join(base, path.endsWith('/') ? `${path}index.html` : path));
    if (!file.startsWith(base)) {
      response.writeHead(403).end();
      return;
    }
    try {
      const body = await readFile(file);
      response.writeHead(200, { 'content-type': TYPES[extname(file)] ?? 'application/octet-stream', 'cache-control': 'no-cache' });
      response.end(body);
    } catch {
      response.writeHead(404, { 'content-type': 'text/plain' }).end('not found\n');
    }
  });
  return new Promise((done, fail) => {
    server.once('error', fail);
    server.listen(port, host, () => done(server));
  });
}

if (process.argv[1] === fileURLToPath(import.meta.url)) {
  const [root = 'build/web/site', port = '8016'] = process.argv.slice(2);
  const server = await serve(root, Number(port));
  const { port: bound } = server.address();
  console.log(`nimbara remote: http://localhost:${bound}/`);
  for (const list of Object.values(networkInterfaces())) {
    for (const a of list ?? []) {
      if (a.family === 'IPv4' && !a.internal) console.log(`  on a phone in the same network: http://${a.address}:${bound}/`);
    }
  }
  console.log('Ctrl-C stops it.');
}
