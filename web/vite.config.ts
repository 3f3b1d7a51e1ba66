import { defineConfig } from 'vitest/config'

export default defineConfig({
  esbuild: { jsx: 'automatic', jsxImportSource: 'preact' },
  build: {
    outDir: '../build/web',
    emptyOutDir: true,
    target: 'es2022',
    assetsInlineLimit: 0, // the policy of the page allows no data: script or style
    modulePreload: { polyfill: false },
  },
  test: { include: ['tests/*.test.ts'] },
})
