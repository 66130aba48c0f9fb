// What is looked for in the page's scripts: names that are not there or not used, and comparisons
// and declarations that mean something else than they seem to.
const browser = ['document', 'location', 'history', 'addEventListener', 'parent', 'innerWidth', 'performance',
  'setTimeout', 'clearTimeout', 'console', 'Node', 'NodeFilter', 'Event', 'CustomEvent', 'CSS', 'Highlight',
  'StaticRange', 'URL', 'URLSearchParams', 'IntersectionObserver', 'axe'];

export default [{
  languageOptions: {sourceType: 'script', globals: Object.fromEntries(browser.map(name => [name, 'readonly']))},
  rules: Object.fromEntries(['no-undef', 'no-unused-vars', 'no-redeclare', 'no-shadow', 'no-const-assign', 'no-dupe-keys',
    'no-unreachable', 'no-fallthrough', 'no-implied-eval', 'no-eval', 'no-var', 'no-self-compare', 'no-unsafe-negation',
    'no-template-curly-in-string', 'prefer-const', 'eqeqeq', 'radix', 'valid-typeof', 'use-isnan',
    'array-callback-return', 'consistent-return'].map(rule => [rule, 'error'])),
}];
