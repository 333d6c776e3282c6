// The built package, as a user of build/web/package imports it.
import { join } from 'node:path';
import { pathToFileURL } from 'node:url';
import { packageDir } from './native.js';

export const nimbara = await import(pathToFileURL(join(packageDir, 'nimbara.js')).href);
