// Opens a report in a browser and says what happened, as one JSON object on standard output.
//
// Standard input: {"page": file, "views": [{"width", "height", "dark", "picture": file or absent}]}.
// Standard output: {"views": [{...}]}, one object for each view:
//   console     messages of the page, errors of its scripts and dialogs
//   violations  of its content security policy, as the browser reports them
//   requests    beside the page itself
//   serious     what axe-core finds that is serious or critical
//   width       what the page needs, in pixels; scripts: script elements, handlers: on... attributes
//   text        what a person reads; print_pages: pages of its PDF

import { readFileSync } from "node:fs";
import { pathToFileURL } from "node:url";

import axe from "axe-core";
import puppeteer from "puppeteer-core";

const wish = JSON.parse(readFileSync(0, "utf8"));

// The events reach the document only while it is there: they are gathered from its beginning.
function gatherViolations() {
  globalThis.violationsOfThePage = [];
  document.addEventListener("securitypolicyviolation", (event) => {
    globalThis.violationsOfThePage.push(`${event.effectiveDirective} ${event.blockedURI}`);
  });
}

function lookAtDocument() {
  const handlers = [...document.querySelectorAll("*")].flatMap((element) =>
    element.getAttributeNames().filter((name) => name.startsWith("on")));
  return {
    violations: globalThis.violationsOfThePage,
    width: document.documentElement.scrollWidth,
    scripts: document.scripts.length,
    handlers,
    text: document.body.innerText,
    figures: document.querySelectorAll("figure svg[role=img]").length,
    ground: getComputedStyle(document.body).backgroundColor,
  };
}

async function seriousFindings(page) {
  await page.evaluate(axe.source);
  const results = await page.evaluate(() => globalThis.axe.run());
  return results.violations
    .filter((finding) => ["serious", "critical"].includes(finding.impact))
    .map((finding) => `${finding.id}: ${finding.nodes.map((node) => node.html).join(" ")}`);
}

async function look(browser, view) {
  const page = await browser.newPage();
  const console_ = [];
  const requests = [];
  page.on("console", (message) => console_.push(message.text()));
  page.on("pageerror", (error) => console_.push(String(error)));
  page.on("dialog", (dialog) => {
    console_.push(`dialog: ${dialog.message()}`);
    dialog.dismiss();
  });
  const address = pathToFileURL(wish.page).href;
  page.on("request", (request) => {
    if (request.url() !== address) requests.push(request.url());
  });
  await page.setViewport({ width: view.width, height: view.height });
  await page.emulateMediaFeatures([
    { name: "prefers-color-scheme", value: view.dark ? "dark" : "light" }]);
  await page.evaluateOnNewDocument(gatherViolations);
  await page.goto(address, { waitUntil: "load" });
  const seen = await page.evaluate(lookAtDocument);
  if (view.picture) await page.screenshot({ path: view.picture });
  const pdf = Buffer.from(await page.pdf({ format: "A4" })).toString("latin1");
  const print_pages = (pdf.match(/\/Type\s*\/Page\b/g) ?? []).length;
  const before = [...console_];
  const serious = await seriousFindings(page);
  await page.close();
  return { ...seen, console: before, requests, serious, print_pages };
}

const browser = await puppeteer.launch({
  executablePath: "/usr/bin/chromium",
  args: ["--no-sandbox", "--disable-dev-shm-usage", "--hide-scrollbars"],
});
try {
  const views = [];
  for (const view of wish.views) views.push(await look(browser, view));
  console.log(JSON.stringify({ views }));
} finally {
  await browser.close();
}
