// Starts the real wsbrowser program for browser tests and benchmarks, reads the address it
// prints and makes sure it is stopped again, even when a test fails half-way.

import { spawn } from 'node:child_process';
import { existsSync, mkdtempSync, rmSync } from 'node:fs';
import net from 'node:net';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

export const repoRoot = fileURLToPath(new URL('../../../', import.meta.url));
export const wsbrowserPath =
  process.env.WSBROWSER || path.join(repoRoot, 'build/dev/bin/wsbrowser');
// The test build: the shipped one has no test hooks.
export const distDir = path.join(repoRoot, 'web/dist-e2e');
export const exampleScript = path.join(repoRoot, 'host/examples/example.py');

// Every program still running, so that an aborted run does not leave servers behind.
const running = new Set();
process.on('exit', () => {
  for (const child of running) child.kill('SIGKILL');
});

/** A loopback port that was free a moment ago, for a program that must come back on it. */
export function freePort() {
  return new Promise((resolve, reject) => {
    const server = net.createServer();
    server.once('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const { port } = server.address();
      server.close(() => resolve(port));
    });
  });
}

export function makeTempDir(prefix) {
  return mkdtempSync(path.join(tmpdir(), prefix));
}

/**
 * Runs wsbrowser on the given scripts and resolves once it has printed its address.
 * Without `settingsDir` it gets a fresh settings folder of its own, removed again by stop().
 */
export async function startWsbrowser({
  scripts = [exampleScript],
  settingsDir,
  args = [],
  env = {},
  startTimeoutMs = 30000,
} = {}) {
  if (!existsSync(wsbrowserPath)) {
    throw new Error(`no wsbrowser at ${wsbrowserPath}; build it or set WSBROWSER`);
  }
  if (!existsSync(path.join(distDir, 'index.html'))) {
    throw new Error(`no web client in ${distDir}; run npm run build:e2e first`);
  }
  const ownSettings = !settingsDir;
  const settings = settingsDir ?? makeTempDir('wsb-settings-');
  const child = spawn(
    wsbrowserPath,
    ['--port', '0', '--static', distDir, ...args, ...scripts],
    {
      // A closed standard input keeps the terminal console off, so the page's console is on.
      stdio: ['ignore', 'pipe', 'pipe'],
      env: { ...process.env, WSB_SETTINGS_DIR: settings, ...env },
    },
  );
  running.add(child);
  let stdout = '';
  let stderr = '';
  child.stdout.setEncoding('utf8');
  child.stderr.setEncoding('utf8');
  child.stderr.on('data', (text) => {
    stderr += text;
  });
  const exited = new Promise((resolve) => {
    child.on('exit', (code, signal) => {
      running.delete(child);
      resolve({ code, signal });
    });
  });

  let timer;
  const url = await Promise.race([
    new Promise((resolve) => {
      child.stdout.on('data', (text) => {
        stdout += text;
        const match = /Workspace browser: (http:\/\/\S+)/.exec(stdout);
        if (match) resolve(match[1]);
      });
    }),
    exited.then(({ code, signal }) => {
      throw new Error(`wsbrowser ended before printing its address (${code ?? signal}): ${stderr}`);
    }),
    new Promise((_, reject) => {
      timer = setTimeout(
        () => reject(new Error(`wsbrowser printed no address within ${startTimeoutMs} ms`)),
        startTimeoutMs,
      );
    }),
  ]).catch((error) => {
    child.kill('SIGKILL');
    throw error;
  }).finally(() => clearTimeout(timer));

  const parsed = new URL(url);
  let stopped = null;
  return {
    url,
    origin: parsed.origin,
    token: parsed.searchParams.get('token'),
    settingsDir: settings,
    output: () => ({ stdout, stderr }),
    /** Asks the program to end as a service manager would; resolves with its exit status. */
    stop(timeoutMs = 10000) {
      stopped ??= (async () => {
        if (child.exitCode === null && child.signalCode === null) child.kill('SIGTERM');
        const killer = setTimeout(() => child.kill('SIGKILL'), timeoutMs);
        const status = await exited;
        clearTimeout(killer);
        if (ownSettings) rmSync(settings, { recursive: true, force: true });
        return status;
      })();
      return stopped;
    },
  };
}
