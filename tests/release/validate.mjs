// Validates a bill of materials or a client bundle with its own official validator:
//
//     node validate.mjs FILE.cdx.json|FILE.mcpb
//
// Exit code 1, and the validator's findings on standard error, when it is not valid.
import { execFileSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";
import * as CycloneDX from "@cyclonedx/cyclonedx-library";

const here = dirname(fileURLToPath(import.meta.url));

async function billIsValid(path) {
  const validator = new CycloneDX.Validation.JsonStrictValidator(CycloneDX.Spec.Version.v1dot6);
  const found = await validator.validate(readFileSync(path, "utf8"));
  if (found !== null) console.error(JSON.stringify(found, null, 2));
  return found === null;
}

function bundleIsValid(path) {
  const folder = mkdtempSync(join(tmpdir(), "bundle-"));
  const tool = join(here, "node_modules", ".bin", "mcpb");
  try {
    execFileSync(tool, ["unpack", path, folder], { stdio: ["ignore", "ignore", "inherit"] });
    execFileSync(tool, ["validate", join(folder, "manifest.json")], { stdio: ["ignore", "ignore", "inherit"] });
    return true;
  } catch (error) {
    console.error(String(error));
    return false;
  } finally {
    rmSync(folder, { recursive: true, force: true });
  }
}

const [path] = process.argv.slice(2);
const valid = path.endsWith(".mcpb") ? bundleIsValid(path) : await billIsValid(path);
process.exit(valid ? 0 : 1);
