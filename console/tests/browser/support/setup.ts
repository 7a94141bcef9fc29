import { afterAll } from 'vitest';
import { endBrowser } from './browser.js';

afterAll(endBrowser);
