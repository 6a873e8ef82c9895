// Tests pages in headless Chromium, which reads them from a server on the loopback interface and from files.
//
// Usage: node --test browser_test.mjs, in a folder with node_modules. The environment must contain the paths of the
// programs ORVFILE, STATUSBOARD, SAFE_ROWS and CHROMIUM, of the module STATUSBOARD_MACHINE, and of the folder DOCUMENTS.
// To make the pictures of the documents, set ORV_SCREENSHOTS to a folder.

import assert from "node:assert/strict";
import { execFile, execFileSync } from "node:child_process";
import fs from "node:fs";
import http from "node:http";
import os from "node:os";
import path from "node:path";
import { after, before, test } from "node:test";
import { fileURLToPath, pathToFileURL } from "node:url";
import { promisify } from "node:util";

import { chromium } from "playwright-core";

const { ORVFILE, STATUSBOARD, STATUSBOARD_MACHINE, SAFE_ROWS, CHROMIUM, DOCUMENTS, ORV_SCREENSHOTS } = process.env;
const STATUSBOARD_CONF = fileURLToPath(new URL("../../examples/statusboard.conf", import.meta.url));
const RELOAD_SECONDS = 10; // as in every page
const run = promisify(execFile);

let browser;
let server;
let folder; // contains all files; the server serves it
let elsewhere; // another folder, not on the file system of /var/tmp, where pages are built

before(async () => {
  browser = await chromium.launch({
    executablePath: CHROMIUM,
    args: process.getuid() === 0 ? ["--no-sandbox"] : [], // as root, Chromium needs this option
  });
  folder = fs.mkdtempSync(path.join(os.tmpdir(), "orv-browser-"));
  elsewhere = fs.mkdtempSync("/dev/shm/orv-browser-");
  fs.symlinkSync(elsewhere, path.join(folder, "elsewhere"));
  server = http.createServer((request, response) => {
    fs.readFile(path.join(folder, path.normalize(new URL(request.url, "http://localhost").pathname)), (error, bytes) => {
      response.writeHead(error ? 404 : 200, { "Content-Type": "text/html", "Cache-Control": "no-store" });
      response.end(bytes);
    });
  });
  await new Promise((resolve) => server.listen(0, "127.0.0.1", resolve));
});

after(async () => {
  await browser?.close();
  server?.close();
  server?.closeAllConnections();
  for (const each of [folder, elsewhere]) {
    if (each) fs.rmSync(each, { recursive: true });
  }
});

// Returns both addresses of the file with this name.
function addresses(name) {
  return [pathToFileURL(path.join(folder, name)).href, `http://127.0.0.1:${server.address().port}/${name}`];
}

// Returns the text of tables; each is a list of rows of two cells or more. An empty line between them is a spacer.
function tableText(tables, options = []) {
  return tables
    .map((rows) => rows.map((cells) => execFileSync(ORVFILE, ["row", ...options, "--", ...cells])).join("") + "\n")
    .join("\n");
}

// Writes the table file and publishes its page.
function publish(name, text) {
  fs.writeFileSync(path.join(folder, name + ".txt"), text);
  execFileSync(ORVFILE, ["--quiet", "page", path.join(folder, name + ".txt"), path.join(folder, name)]);
}

// Describes the page that is shown: the names of adjacent elements, the texts of all cells, and elements that a page of
// the library does not have. Browsers put the outer element of the page into the body, and everything else into that.
function shown() {
  return {
    elements: [...document.querySelector("body > kpx_pld").children].map((element) => element.localName),
    tables: [...document.querySelectorAll("table")].map((table) =>
      [...table.rows].map((row) => [...row.cells].map((cell) => cell.textContent))),
    stray: [...document.querySelectorAll("body *")].map((element) => element.localName)
      .filter((name) => !["kpx_pld", "meta", "table", "tbody", "tr", "td", "p"].includes(name)),
  };
}

// Opens the address and passes the page to `use`. Checks that no script failed, no dialog appeared and nothing else was
// requested.
async function visit(address, use) {
  const page = await browser.newPage({ viewport: { width: 760, height: 620 } });
  const unexpected = [];
  page.on("pageerror", (error) => unexpected.push(`error: ${error}`));
  page.on("dialog", (dialog) => (unexpected.push(`dialog: ${dialog.message()}`), dialog.dismiss()));
  page.on("request", (request) => {
    const isIcon = request.url().endsWith("/favicon.ico");
    if (request.url() !== address && !isIcon) unexpected.push(`request: ${request.url()}`);
  });
  try {
    await page.goto(address);
    await use(page);
    assert.deepEqual(unexpected, []);
  } finally {
    await page.close();
  }
}

test("tables, rows and cells are shown as written, in UTF-8, with a spacer between tables", async () => {
  const tables = [
    [["Port", "State", "Speed"], ["1", "up", "100 Mbit/s"], ["2", "", "10 Mbit/s"], ["3", "down", ""]],
    [["Ort", "Straße"], ["Zürich", "Übergasse 5 € – 日本語 – 😀"]],
  ];
  publish("written.html", tableText(tables));
  for (const address of addresses("written.html")) {
    await visit(address, async (page) => {
      const found = await page.evaluate(shown);
      assert.deepEqual(found.tables, tables);
      assert.deepEqual(found.elements, ["meta", "meta", "table", "p", "table"]);
      assert.deepEqual(found.stray, []);
      assert.equal(await page.evaluate(() => document.characterSet), "UTF-8");
    });
  }
});

const HOSTILE = [
  "<script>window.ran = 1</script>", "<img src=x onerror='window.ran = 1'>", "</td></tr></table><h1>torn</h1>",
  "<!--", "-->", "<plaintext>", "<svg/onload=window.ran=1>", "<a href='javascript:window.ran=1'>x</a>", "<![CDATA[",
  "&lt;b&gt;", "&amp", "&#59", "&#60;b&#62;", "#59", "a,b", "a;b", "a:b", "1:2;3,4\n5\r6", ";7", "\"'`", "<style>*{display:none}",
  "<iframe src='http://127.0.0.1:1/'>", "<meta http-equiv=refresh content=0>", "<base href='http://127.0.0.1:1/'>", "</html>",
];

test("hostile cells made safe are shown as text", async () => {
  const tables = [HOSTILE.map((text) => [text, text, text])];
  publish("hostile.html", tableText(tables));
  for (const address of addresses("hostile.html")) {
    await visit(address, async (page) => {
      const found = await page.evaluate(shown);
      assert.deepEqual(found.tables, tables);
      assert.deepEqual(found.stray, []);
      assert.equal(await page.evaluate(() => window.ran), undefined);
    });
  }
});

// Returns a function that returns random numbers below a bound, the same ones for each seed.
function randomNumbers(seed) {
  let state = seed;
  return (bound) => {
    state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
    return Math.floor((state / 2 ** 32) * bound);
  };
}

// Returns the bytes of a cell: pieces of markup, of references, of characters and random bytes.
function hostileCell(below) {
  const pieces = [...HOSTILE, "", "&", "&#", "&#x", "&lt", "1", "12", "a", ";", " ", "\t", "\f", "\r\n", "\n", "\0", "\x7f", "\x85",
    "\u00a0", "\u200b", "\u2028", "\ufeff", "\ufffe", "\uffff", "\u{10ffff}", "<!---->", "<!--", "-->", "</td>", "<td>", "</textarea>"];
  const parts = Array.from({ length: below(6) }, () => below(3) === 0
    ? Buffer.from(Array.from({ length: below(5) }, () => below(256)))
    : Buffer.from(pieces[below(pieces.length)]).subarray(0, below(8) === 0 ? below(4) : undefined));
  return Buffer.concat(parts);
}

test("10,000 hostile cells of the safe companion are shown as their text, each in its place", async () => {
  const seed = Number(process.env.ORV_SEED ?? 14);
  const below = randomNumbers(seed);
  const rows = [];
  for (let cells = 0; cells < 10000; cells += rows.at(-1).length) {
    rows.push(Array.from({ length: 1 + below(6) }, () => hostileCell(below)));
  }
  const lines = rows.map((cells) => cells.map((cell) => cell.toString("hex") || "-").join(" ")).join("\n");
  const text = execFileSync(SAFE_ROWS, { input: lines + "\n", maxBuffer: 1 << 26, stdio: ["pipe", "pipe", "inherit"] });
  publish("safe.html", text);
  const decoder = new TextDecoder("utf-8", { ignoreBOM: true });
  const expected = rows.map((cells) => [cells.map((cell) => decoder.decode(cell).replaceAll("\0", "\ufffd"))]);
  for (const address of addresses("safe.html")) {
    await visit(address, async (page) => {
      const found = await page.evaluate(shown);
      assert.equal(found.tables.length, expected.length);
      expected.forEach((table, i) => assert.deepEqual(found.tables[i], table, `seed ${seed}, row ${i}`));
      assert.deepEqual(found.stray, []);
      assert.equal(await page.evaluate(() => window.ran), undefined);
    });
  }
  console.log(`browser: ${expected.flat(2).length} hostile cells in ${expected.length} rows, all shown as their text`);
});

test("raw cells are markup, scripts among it: making them safe is up to the program", async () => {
  publish("raw.html", tableText([[["<b>head</b>", "<script>window.ran=1</script>"]]], ["--raw"]));
  for (const address of addresses("raw.html")) {
    await visit(address, async (page) => {
      assert.equal(await page.evaluate(() => window.ran), 1);
      assert.equal(await page.evaluate(() => document.querySelector("td b").textContent), "head");
    });
  }
});

test("a page reloads by itself after 10 seconds and shows the new content", async () => {
  publish("reload.html", tableText([[["content", "old"]]]));
  const pages = await Promise.all(addresses("reload.html").map(async (address) => {
    const page = await browser.newPage();
    await page.goto(address);
    return page;
  }));
  const start = Date.now();
  publish("reload.html", tableText([[["content", "new"]]]));
  const content = () => document.querySelector("td + td")?.textContent;
  for (const page of pages) {
    assert.equal(await page.evaluate(content), "old");
  }
  await Promise.all(pages.map((page) => page.waitForFunction(
    () => document.querySelector("td + td")?.textContent === "new", null, { timeout: 60000 })));
  const seconds = (Date.now() - start) / 1000;
  assert.ok(seconds > RELOAD_SECONDS - 2, `reloaded after ${seconds} s already`);
  console.log(`browser: the new content was shown after ${seconds.toFixed(1)} s`);
  await Promise.all(pages.map((page) => page.close()));
});

// Replaces the page repeatedly with two contents in turn, until `isDone`. Returns how often.
async function replaceUntil(isDone, name) {
  let times = 0;
  for (; !isDone(); ++times) {
    await run(ORVFILE, ["--quiet", "page", path.join(folder, `${name}.${times % 2}.txt`), path.join(folder, name)]);
  }
  return times;
}

// Of a file, Chromium asks for the size by its name before it opens it. If the page is replaced in between, it shows the
// beginning of the new page, as long as the old one. Returns the rows of it.
function cutByBrowser(small, large, largeRows) {
  const beginning = fs.readFileSync(large).subarray(0, fs.statSync(small).size).toString();
  return largeRows.slice(0, beginning.split("<tr>").length - 1);
}

for (const name of ["replaced.html", "elsewhere/replaced.html"]) {
  test(`a page that is replaced in a loop is never seen in part: ${name}`, async () => {
    const contents = [3, 400].map((rows) => [
      ...Array.from({ length: rows }, (_, row) => [`row ${row}`, "x".repeat(row % 90)]), ["last of", String(rows)],
    ]);
    contents.forEach((rows, i) => {
      const csv = rows.map((cells) => cells.join(",")).join("\n") + "\n";
      fs.writeFileSync(path.join(folder, `${name}.${i}.txt`),
        execFileSync(ORVFILE, ["row", "--csv", "--table-end"], { input: csv }));
    });
    for (const [content, page] of [[0, `${name}.0`], [1, `${name}.1`], [0, name]]) {
      const table = path.join(folder, `${name}.${content}.txt`);
      execFileSync(ORVFILE, ["--quiet", "page", table, path.join(folder, page)]);
    }
    const cut = cutByBrowser(path.join(folder, `${name}.0`), path.join(folder, `${name}.1`), contents[1]);
    let cuts = 0;
    const loads = [0, 0];
    let isDone = false;
    const replacing = replaceUntil(() => isDone, name);
    try {
      for (const address of addresses(name)) {
        await visit(address, async (page) => {
          for (let i = 0; i < 50; ++i) {
            await page.reload();
            const [rows] = (await page.evaluate(shown)).tables;
            if (address.startsWith("file:") && rows.length === cut.length) {
              assert.deepEqual(rows, cut);
              ++cuts;
              continue;
            }
            const which = contents.findIndex((each) => each.length === rows.length);
            assert.deepEqual(rows, contents[which]);
            ++loads[which];
          }
        });
      }
    } finally {
      isDone = true;
    }
    const times = await replacing;
    assert.ok(loads[0] > 0 && loads[1] > 0, `only one content was seen: ${loads}`);
    const whole = loads[0] + loads[1];
    console.log(`browser: ${name}, replaced ${times} times: ${whole} loads whole, ${cuts} cut by the browser`);
  });
}

test("the status board shows the files of a directory, whatever their names", async () => {
  const directory = path.join(folder, "files");
  fs.mkdirSync(directory);
  const names = HOSTILE.filter((text) => !text.includes("/"));
  names.forEach((text, i) => fs.writeFileSync(path.join(directory, text), "x".repeat(i)));
  const settings = path.join(folder, "statusboard.conf");
  fs.writeFileSync(settings, `title = Board & <test>\ndirectory = ${directory}\npage = ${folder}/board.html\nperiod = 10\n`);
  execFileSync(STATUSBOARD, [settings], { stdio: ["ignore", "ignore", "inherit"] });
  for (const address of addresses("board.html")) {
    await visit(address, async (page) => {
      const { tables, elements, stray } = await page.evaluate(shown);
      assert.equal(tables.length, 5);
      assert.deepEqual(elements, ["meta", "meta", "table", ...Array(4).fill(["p", "table"]).flat()]);
      assert.deepEqual(new Set(stray), new Set(["title", "style", "meter", "b"])); // the board's own markup
      assert.equal(tables[0][0][0], "Board & <test>");
      assert.equal(await page.title(), "Board & <test>");
      const files = new Map(tables[4].slice(1));
      assert.deepEqual([...files.keys()], [...files.keys()].sort());
      names.forEach((text, i) => assert.equal(files.get(text), `${i} B`, text));
      assert.equal(files.size, names.length);
    });
  }
});

// Publishes the page of a machine that the test describes; machine.cpp says by which files.
function publishMachine(name, settings, files) {
  const machine = fs.mkdtempSync(path.join(folder, "machine-"));
  const module = path.join(machine, "module.so"); // preloaded by a path without blanks
  fs.copyFileSync(STATUSBOARD_MACHINE, module);
  for (const [file, lines] of Object.entries(files)) {
    fs.writeFileSync(path.join(machine, file), lines.map((line) => line + "\n").join(""));
  }
  execFileSync(STATUSBOARD, ["--page", path.join(folder, name), settings],
    { stdio: ["ignore", "ignore", "inherit"], env: { ...process.env, LD_PRELOAD: module, ORV_MACHINE: machine } });
}

// How parts of the board look, and whether it must be scrolled sideways.
function look() {
  const style = (selector) => getComputedStyle(document.querySelector(selector));
  const canvas = document.body.appendChild(document.createElement("i"));
  canvas.style.color = "Canvas";
  const brightness = (color) => {
    const [red, green, blue] = color.match(/[0-9.]+/g).map((value) => value / 255)
      .map((value) => (value <= 0.04045 ? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4));
    return 0.2126 * red + 0.7152 * green + 0.0722 * blue;
  };
  const contrast = (selector) => { // as the guidelines for accessible web content (WCAG) define it
    const [dark, bright] = [style(selector).color, getComputedStyle(canvas).color].map(brightness).sort((a, b) => a - b);
    return (bright + 0.05) / (dark + 0.05);
  };
  const result = {
    number: style("td:nth-child(3)").textAlign,
    heading: style("tr td").fontWeight,
    text: style("td").color,
    up: style("b.up").color,
    down: style("b.down").color,
    bar: style("meter").display,
    contrasts: ["td", "b.up", "b.down"].map(contrast),
    background: brightness(getComputedStyle(canvas).color),
    width: window.innerWidth,
    isWide: document.scrollingElement.scrollWidth > document.scrollingElement.clientWidth,
  };
  canvas.remove();
  return result;
}

// The mean brightness of a picture, from 0 to 255.
async function brightness(page, png) {
  return page.evaluate(async (source) => {
    const image = await createImageBitmap(await (await fetch(source)).blob());
    const canvas = new OffscreenCanvas(image.width, image.height).getContext("2d");
    canvas.drawImage(image, 0, 0);
    const { data } = canvas.getImageData(0, 0, image.width, image.height);
    return data.reduce((sum, value, i) => sum + (i % 4 === 3 ? 0 : value), 0) / (data.length * 3 / 4);
  }, `data:image/png;base64,${png.toString("base64")}`);
}

// Publishes a board of long names and large sizes.
function publishWideBoard() {
  const point = path.join(folder, "m".repeat(200), "n".repeat(200));
  fs.mkdirSync(point, { recursive: true });
  const files = fs.mkdtempSync(path.join(folder, "files-"));
  fs.writeFileSync(path.join(files, "f".repeat(255)), "");
  fs.truncateSync(path.join(files, "f".repeat(255)), 900 * 2 ** 20);
  const settings = path.join(folder, "wide.conf");
  fs.writeFileSync(settings, `title = ${"Title".repeat(20)}\ndirectory = ${files}\npage = unused\nperiod = 10\n`);
  publishMachine("wide.html", settings, {
    host: ["h".repeat(63)],
    loadavg: ["100.00 100.00 100.00 1/100 1000"],
    uptime: ["900000000.00 1.00"],
    mounts: [`dev ${point} fuse.${"t".repeat(40)} rw 0 0`, "proc /proc proc rw 0 0"],
    space: [`1048576 1023948 1 ${point}`, "4096 100 0 /proc"],
    interfaces: ["65 interface-name", "1 eth0"],
  });
  return pathToFileURL(path.join(folder, "wide.html")).href;
}

test("the status board reads well in light and dark and on paper", async () => {
  const address = publishWideBoard();
  const scratch = await browser.newPage();
  await visit(address, async (page) => {
    const light = await page.evaluate(look);
    assert.equal(light.number, "right");
    assert.equal(light.heading, "700");
    assert.equal(new Set([light.up, light.down, light.text]).size, 3);
    assert.notEqual(light.bar, "none");
    assert.equal(light.isWide, false);
    assert.ok(await brightness(scratch, await page.screenshot()) > 200, "the light page is dark");

    await page.emulateMedia({ colorScheme: "dark" });
    const dark = await page.evaluate(look);
    assert.notEqual(dark.text, light.text);
    assert.ok(await brightness(scratch, await page.screenshot()) < 70, "the dark page is light");

    await page.emulateMedia({ media: "print" }); // still in dark mode
    const paper = await page.evaluate(look);
    assert.equal(paper.bar, "none");
    assert.equal(paper.background, 1);

    for (const { contrasts } of [light, dark, paper]) {
      contrasts.forEach((contrast) => assert.ok(contrast >= 4.5, `contrasts: ${contrasts}`));
    }
  });
  await scratch.close();
});

test("the status board fits on a phone, whatever the names and sizes", async () => {
  const phone = await browser.newPage({ viewport: { width: 360, height: 640 }, isMobile: true, hasTouch: true });
  await phone.goto(publishWideBoard());
  const found = await phone.evaluate(look);
  assert.equal(found.width, 360);
  assert.equal(found.isWide, false, "the page must be scrolled sideways");
  assert.notEqual(found.bar, "none");
  await phone.close();
});

test("a screen reader reads states and the use of file systems", async () => {
  await visit(publishWideBoard(), async (page) => {
    assert.equal(await page.getByRole("meter").count(), 2);
    assert.equal(await page.getByRole("meter", { name: "Use of /proc", exact: true }).count(), 1);
    const { tables } = await page.evaluate(shown);
    assert.deepEqual(tables[2].at(-1), ["/proc", "proc", "400.0 KiB", "400.0 KiB", " 100 %"]);
    assert.deepEqual(tables[3].slice(1), [["eth0", "down"], ["interface-name", "up"]]);
  });
});

test("the status board keeps its look under the content security policy of the documents", async () => {
  const security = fs.readFileSync(path.join(DOCUMENTS, "security.md"), "utf8");
  const [, policy] = security.match(/`(default-src 'none'; style-src 'sha256-[^`]*)`/);
  publishWideBoard();
  const [, address] = addresses("wide.html");
  for (const [header, expected] of [[policy, "right"], ["default-src 'none'", "start"]]) {
    const page = await browser.newPage();
    await page.route(address, async (route) => {
      const response = await route.fetch();
      await route.fulfill({ response, headers: { ...response.headers(), "Content-Security-Policy": header } });
    });
    await page.goto(address);
    assert.equal((await page.evaluate(look)).number, expected, header);
    await page.close();
  }
});

test("pictures for the documents", { skip: ORV_SCREENSHOTS ? false : "only made on request" }, async () => {
  // script/browser mounts a file system of its own at each of these places.
  const mounts = { "/": "ext4", "/boot": "vfat", "/media": "vfat", "/srv": "ext4" };
  publishMachine("picture.html", STATUSBOARD_CONF, {
    host: ["panel-7"],
    loadavg: ["0.21 0.18 0.12 1/84 2201"],
    uptime: ["1062245.18 1901320.44"],
    mounts: Object.entries(mounts).map(([point, kind]) => `dev ${point} ${kind} rw 0 0`),
    space: ["4096 485376 228120 /", "512 131072 93870 /boot", "16384 978944 24012 /media", "4096 7594240 1262800 /srv"],
    interfaces: ["1 wlan0", "65 eth0", "65 lo"],
  });
  const page = await browser.newPage({ viewport: { width: 720, height: 400 }, deviceScaleFactor: 2 });
  await page.goto(pathToFileURL(path.join(folder, "picture.html")).href);
  for (const [colorScheme, name] of [["light", "statusboard.png"], ["dark", "statusboard-dark.png"]]) {
    await page.emulateMedia({ colorScheme });
    await page.screenshot({ path: path.join(ORV_SCREENSHOTS, name), fullPage: true });
  }
  await page.close();
});
