// What is done with the page in a browser: its tests, or with --mode the measurements or the pictures. They share two
// processors with all others: one file at a time.
import { defineConfig } from 'vitest/config';

const kFiles: Record<string, string[]> = {
  bench: ['bench.ts'],
  screenshots: ['screenshots.ts'],
  test: ['*.page.ts'],
};

export default defineConfig(({ mode }) => ({
  root: new URL('.', import.meta.url).pathname,
  test: {
    include: kFiles[mode] ?? kFiles['test']!,
    setupFiles: ['support/setup.ts'],
    pool: 'forks',
    fileParallelism: false,
    testTimeout: mode === 'test' ? 120_000 : 600_000,
    hookTimeout: 60_000,
    teardownTimeout: 30_000,
    reporters: ['verbose'],
    expect: { poll: { timeout: 30_000, interval: 50 } },
  },
}));
