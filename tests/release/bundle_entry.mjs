// Prints what the official tool makes of a bundle's manifest: the command with which a client starts
// the server, or null when it needs an answer that it does not have.
//
//     node bundle_entry.mjs < {"manifest": FILE, "folder": ..., "platform": ..., "answers": {...}}
import { readFileSync } from "node:fs";
import { getMcpConfigForManifest } from "@anthropic-ai/mcpb";

const asked = JSON.parse(readFileSync(0, "utf8"));
Object.defineProperty(process, "platform", { value: asked.platform });
const entry = await getMcpConfigForManifest({
  manifest: JSON.parse(readFileSync(asked.manifest, "utf8")),
  extensionPath: asked.folder,
  systemDirs: {},
  userConfig: asked.answers,
  pathSeparator: asked.platform === "win32" ? "\\" : "/",
});
process.stdout.write(JSON.stringify(entry ?? null));
