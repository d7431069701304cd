// The lint gate of Brinmoor Web (npm run check): JavaScript's and typescript-eslint's
// recommended rules over the page, its tests and the browser suites.
import js from '@eslint/js';
import globals from 'globals';
import tseslint from 'typescript-eslint';

export default tseslint.config(
  { ignores: ['node_modules/', 'dist/'] },
  js.configs.recommended,
  ...tseslint.configs.recommended,
  {
    // A member left out of a copy by destructuring is named with a leading "_".
    rules: {
      '@typescript-eslint/no-unused-vars': ['error', { varsIgnorePattern: '^_', argsIgnorePattern: '^_', ignoreRestSiblings: true }],
    },
  },
  {
    files: ['src/**/*.{ts,tsx}', 'test/**/*.ts'],
    languageOptions: { globals: { ...globals.browser } },
  },
  {
    files: ['e2e/**/*.ts', 'test/**/*.mjs', 'build_support/**/*.{ts,mjs}', '*.config.{js,ts}'],
    languageOptions: { globals: { ...globals.node, ...globals.browser } },
  },
);
