// Tests pages in headless Chromium, which reads them from a server on the loopback interface and from files.
//
// Usage: node --test browser_test.mjs, in a folder with node_modules. The environment must contain the paths of the
// programs ORVFILE, STATUSBOARD, SAFE_ROWS and CHROMIUM. To make the pictures of the documents, set ORV_SCREENSHOTS to a folder.

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

const { ORVFILE, STATUSBOARD, SAFE_ROWS, CHROMIUM, ORV_SCREENSHOTS } = process.env;
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
  tables[0].at(-1).pop(); // an empty cell at the end is not shown
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
    execFileSync(ORVFILE, ["--quiet", "page", path.join(folder, `${name}.0.txt`), path.join(folder, name)]);
    const loads = [0, 0];
    let isDone = false;
    const replacing = replaceUntil(() => isDone, name);
    try {
      for (const address of addresses(name)) {
        await visit(address, async (page) => {
          for (let i = 0; i < 50; ++i) {
            await page.reload();
            const [rows] = (await page.evaluate(shown)).tables;
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
    console.log(`browser: ${loads[0] + loads[1]} loads of ${name}, replaced ${times} times, all whole`);
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
      assert.deepEqual(stray, []);
      assert.match(tables[0][0][0], /^Board & <test>/);
      const files = new Map(tables[4].slice(1));
      assert.deepEqual([...files.keys()], [...files.keys()].sort());
      names.forEach((text, i) => assert.equal(files.get(text), String(i), text));
      assert.equal(files.size, names.length);
    });
  }
});

test("pictures for the documents", { skip: ORV_SCREENSHOTS ? false : "only made on request" }, async () => {
  const page = path.join(folder, "picture.html");
  execFileSync(STATUSBOARD, ["--page", page, STATUSBOARD_CONF], { stdio: ["ignore", "ignore", "inherit"] });
  await visit(pathToFileURL(page).href, (shownPage) =>
    shownPage.screenshot({ path: path.join(ORV_SCREENSHOTS, "statusboard.png"), fullPage: true }));
});
