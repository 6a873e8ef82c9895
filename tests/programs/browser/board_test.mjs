// Tests the page of the status board on the emulated board in headless Chromium.
//
// Usage: node --test board_test.mjs, in a folder with node_modules. The environment must contain the path of the program
// CHROMIUM and the address BOARD_PAGE. To make the picture of the documents, set ORV_SCREENSHOTS to a folder.

import assert from "node:assert/strict";
import path from "node:path";
import { test } from "node:test";

import { chromium } from "playwright-core";

const { CHROMIUM, BOARD_PAGE, ORV_SCREENSHOTS } = process.env;
const RELOADS = 3;

// The texts of all cells, as a list of tables.
function tables() {
  return [...document.querySelectorAll("table")].map((table) =>
    [...table.rows].map((row) => [...row.cells].map((cell) => cell.textContent.trim())));
}

function check([title, system, fileSystems, interfaces, files]) {
  assert.deepEqual([title[0][0], title[1]], ["Status of the emulated device", ["Host", "board"]]);
  assert.match(title[2][1], /^20\d\d-\d\d-\d\d \d\d:\d\d:\d\d UTC$/);
  assert.equal(system.at(-1)[1], "0 days, 0 hours");
  const places = new Map(fileSystems.map((row) => [row[0], row[1]]));
  assert.deepEqual([places.get("/var/tmp"), places.get("/dev/shm"), places.has("/host")], ["ext4", "ext4", false]);
  assert.deepEqual(interfaces.slice(1).map(([name]) => name), ["lo", "eth0"]);
  assert.ok(files.some(([name]) => name === "libOrvFileUtils.so.0"), "the library is not listed");
}

test("the page of the emulated board is whole, also after each reload", async () => {
  const browser = await chromium.launch({
    executablePath: CHROMIUM,
    args: process.getuid() === 0 ? ["--no-sandbox"] : [], // as root, Chromium needs this option
  });
  try {
    const page = await browser.newPage({ viewport: { width: 720, height: 400 }, deviceScaleFactor: 2 });
    await page.goto(BOARD_PAGE);
    const times = [];
    for (let i = 0; i <= RELOADS; ++i) {
      const found = await page.evaluate(tables);
      assert.equal(found.length, 5);
      check(found);
      times.push(found[0][2][1]);
      if (i < RELOADS) {
        await page.waitForFunction((time) => {
          const shown = document.querySelector("table")?.rows[2]?.cells[1]?.textContent;
          return shown && shown !== time;
        }, times[i], { timeout: 60000 });
      }
    }
    assert.deepEqual(times, [...new Set(times)].sort());
    console.log(`browser: the page of the emulated board reloaded ${RELOADS} times: ${times.join(", ")}`);
    if (ORV_SCREENSHOTS) {
      await page.screenshot({ path: path.join(ORV_SCREENSHOTS, "statusboard-device.png"), fullPage: true });
    }
  } finally {
    await browser.close();
  }
});
