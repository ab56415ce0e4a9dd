import { createHash } from 'node:crypto';
import { mkdirSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join, relative } from 'node:path';
import { fileURLToPath } from 'node:url';
import { defineConfig } from 'vitest/config';
import type { Plugin } from 'vite';

const here = dirname(fileURLToPath(import.meta.url));

// The server's Content-Security-Policy allows fonts and images from the page's own origin only,
// so data: URLs inside the grid's style sheets would be blocked. This moves each of them into a
// file of its own, which the build then emits next to the other assets.
function dataUrlsToFiles(): Plugin {
  const folder = join(tmpdir(), 'wsbrowser-css-assets');
  const extensions: Record<string, string> = {
    'font/woff2': 'woff2',
    'font/woff': 'woff',
    'image/svg+xml': 'svg',
    'image/png': 'png',
  };
  const toFile = (cssFile: string, dataUrl: string): string | null => {
    const match = /^data:([^;,]+)((?:;[^;,]*)*),(.*)$/s.exec(dataUrl);
    if (!match) return null;
    const [, mime, params, payload] = match;
    const extension = extensions[mime];
    if (!extension) return null;
    const bytes = params.includes(';base64')
      ? Buffer.from(payload, 'base64')
      : Buffer.from(decodeURIComponent(payload), 'utf8');
    const name = createHash('sha256').update(bytes).digest('hex').slice(0, 16) + '.' + extension;
    mkdirSync(folder, { recursive: true });
    writeFileSync(join(folder, name), bytes);
    return relative(dirname(cssFile), join(folder, name)).split('\\').join('/');
  };
  return {
    name: 'wsb-data-urls-to-files',
    enforce: 'pre',
    transform(code, id) {
      if (!id.endsWith('.css') || !id.includes('ag-grid-community')) return null;
      const replaced = code.replace(
        /url\(\s*(?:'(data:[^']*)'|"(data:[^"]*)"|(data:[^)'"]*))\s*\)/g,
        (whole, single?: string, double?: string, bare?: string) => {
          const file = toFile(id, (single ?? double ?? bare) as string);
          return file ? `url("${file}")` : whole;
        },
      );
      return { code: replaced, map: null };
    },
  };
}

// The "e2e" mode builds the page the browser tests and benchmark drive, with their test hooks,
// into a folder of its own so that the shipped build in dist never carries them.
export default defineConfig(({ mode }) => ({
  root: here,
  base: './',
  plugins: [dataUrlsToFiles()],
  test: { include: ['test/**/*.test.ts'], environment: 'node' },
  build: {
    outDir: join(here, mode === 'e2e' ? 'dist-e2e' : 'dist'),
    emptyOutDir: true,
    // Inlined assets would become data: URLs again, which the policy blocks.
    assetsInlineLimit: 0,
    modulePreload: { polyfill: false },
    target: 'es2022',
    // The grid library ships its theme CSS inside its module (about 700 kB we cannot drop), so
    // one chunk of about 830 kB is expected; warn only well past that.
    chunkSizeWarningLimit: 1000,
  },
}));
