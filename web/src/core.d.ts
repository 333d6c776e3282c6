// The package's API made from the module's bytes, for scopes that cannot
// fetch (an AudioWorklet); see createNimbara in nimbara.d.ts.
export { createNimbara } from './nimbara.js';
