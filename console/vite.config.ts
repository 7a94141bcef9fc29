import { createHash } from 'node:crypto';
import { gzipSync } from 'node:zlib';
import type { Plugin } from 'vite';
import { defineConfig } from 'vitest/config';

const kLimitBytes = 180 * 1024;

// The source of an inline element that the policy allows, by its content.
function hashOf(content: string): string {
  return `'sha256-${createHash('sha256').update(content).digest('base64')}'`;
}

// Puts script and style into index.html, with a policy that allows exactly these and no request but to a broker.
// 'require-trusted-types-for' makes the browser refuse every string that would be parsed as HTML.
function oneFile(): Plugin {
  return {
    name: 'one-file',
    enforce: 'post',
    generateBundle(_, bundle) {
      let script = '';
      let style = '';
      for (const [name, file] of Object.entries(bundle)) {
        if (name === 'index.html') continue;
        if (file.type === 'chunk') script += file.code;
        else if (name.endsWith('.css')) style += String(file.source);
        else this.error(`${name} does not fit into one file`);
        delete bundle[name];
      }
      // "</script" and "<!--" would end or change the element; in a script both stand in strings only.
      script = script.trim().replaceAll(/<(?=\/script|!--)/gi, '\\x3c');
      style = style.trim();
      if (/<\/style/i.test(style)) this.error('the style contains its own end');

      const policy = [
        "default-src 'none'",
        `script-src ${hashOf(script)}`,
        `style-src ${hashOf(style)}`,
        'connect-src ws: wss:',
        'img-src data:',
        "base-uri 'none'",
        "form-action 'none'",
        "require-trusted-types-for 'script'",
        "trusted-types 'none'",
      ].join('; ');

      const page = bundle['index.html'];
      if (page?.type !== 'asset') return this.error('no index.html');
      const html = String(page.source)
        .replace(/\s*<script type="module"[^>]*><\/script>/, '')
        .replace(/\s*<link rel="stylesheet"[^>]*>/, '')
        .replace(
          '<meta charset="utf-8" />',
          () => `<meta charset="utf-8" />\n    <meta http-equiv="Content-Security-Policy" content="${policy}" />`,
        )
        .replace('</head>', () => `  <style>${style}</style>\n  </head>`)
        .replace('</body>', () => `  <script type="module">${script}</script>\n  </body>`);
      page.source = html;

      const size = gzipSync(html, { level: 9 }).length;
      this.info(`index.html: ${(size / 1024).toFixed(1)} KiB compressed, of at most ${kLimitBytes / 1024}`);
      if (size > kLimitBytes) this.error('index.html is too large');
    },
  };
}

export default defineConfig({
  base: './',
  esbuild: { jsx: 'automatic', jsxImportSource: 'preact' },
  build: {
    target: 'es2022',
    cssCodeSplit: false,
    modulePreload: { polyfill: false },
    assetsInlineLimit: 0,
    reportCompressedSize: false,
    rollupOptions: { output: { inlineDynamicImports: true } },
  },
  plugins: [oneFile()],
  test: { include: ['tests/unit/**/*.test.ts'] },
});
