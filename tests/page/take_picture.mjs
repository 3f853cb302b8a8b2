// Usage: node take_picture.mjs PAGE.html PICTURE.png
// The picture of docs/fleet.md.
import {writeFileSync} from 'node:fs';
import {resolve} from 'node:path';
import {pathToFileURL} from 'node:url';

import {Browser} from './browser.mjs';

const [page, picture] = process.argv.slice(2);
const browser = await Browser.start(process.env.CHROMIUM ?? 'chromium');
try {
  await browser.look(880, 600, 'light');
  await browser.open(pathToFileURL(resolve(page)).href);
  writeFileSync(picture, await browser.screenshot());
} finally {
  await browser.close();
}
