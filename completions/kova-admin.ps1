# Completion for kova-admin. Written by scripts/make_command_files.py.
# Load it in your profile: . PATH\kova-admin.ps1
Register-ArgumentCompleter -Native -CommandName kova-admin, kova-admin.exe -ScriptBlock {
    param($wordToComplete, $commandAst, $cursorPosition)
    $table = ConvertFrom-Json @'
{
  "commands": {
    "kova-admin": [
      "approve",
      "approvals",
      "audit",
      "bundle",
      "doctor",
      "init",
      "policy",
      "serve",
      "service",
      "help"
    ],
    "kova-admin approvals": [
      "list",
      "clean"
    ],
    "kova-admin audit": [
      "report",
      "tail",
      "export",
      "seal",
      "verify"
    ],
    "kova-admin policy": [
      "check",
      "diff",
      "explain",
      "lint",
      "schema",
      "test"
    ],
    "kova-admin service": [
      "install",
      "start",
      "stop",
      "remove",
      "run"
    ]
  },
  "options": {
    "kova-admin": [
      "--help",
      "--version"
    ],
    "kova-admin approve": [
      "--help",
      "--env",
      "--journal",
      "--secret-file",
      "--digest",
      "--copy-to",
      "--without-statement",
      "--show",
      "--json"
    ],
    "kova-admin approvals": [
      "--help"
    ],
    "kova-admin approvals list": [
      "--help",
      "--env",
      "--journal",
      "--json"
    ],
    "kova-admin approvals clean": [
      "--help",
      "--env",
      "--journal",
      "--dry-run"
    ],
    "kova-admin audit": [
      "--help"
    ],
    "kova-admin audit report": [
      "--help",
      "--format",
      "--output",
      "--journal",
      "--since",
      "--until",
      "--client",
      "--tool"
    ],
    "kova-admin audit tail": [
      "--help",
      "--lines"
    ],
    "kova-admin audit export": [
      "--help",
      "--to",
      "--output",
      "--since",
      "--until",
      "--client",
      "--tool"
    ],
    "kova-admin audit seal": [
      "--help",
      "--to"
    ],
    "kova-admin audit verify": [
      "--help",
      "--kept"
    ],
    "kova-admin bundle": [
      "--help",
      "--env",
      "--output",
      "--server",
      "--library",
      "--audit"
    ],
    "kova-admin doctor": [
      "--help",
      "--env",
      "--server",
      "--json"
    ],
    "kova-admin init": [
      "--help",
      "--folder",
      "--server",
      "--port",
      "--database",
      "--user",
      "--password-file",
      "--client-id",
      "--name",
      "--tables",
      "--denied-columns",
      "--collections",
      "--write-tables",
      "--writes",
      "--transport",
      "--http-port",
      "--offline",
      "--json"
    ],
    "kova-admin policy": [
      "--help"
    ],
    "kova-admin policy check": [
      "--help",
      "--env",
      "--other-host",
      "--json"
    ],
    "kova-admin policy diff": [
      "--help",
      "--env",
      "--other-host",
      "--json",
      "--fail-on-widening"
    ],
    "kova-admin policy explain": [
      "--help",
      "--env",
      "--other-host",
      "--markdown",
      "--json"
    ],
    "kova-admin policy lint": [
      "--help",
      "--env",
      "--other-host",
      "--json"
    ],
    "kova-admin policy schema": [
      "--help"
    ],
    "kova-admin policy test": [
      "--help",
      "--env",
      "--other-host",
      "--junit",
      "--fail-on-empty"
    ],
    "kova-admin serve": [
      "--help",
      "--env",
      "--http"
    ],
    "kova-admin service": [
      "--help"
    ],
    "kova-admin service install": [
      "--help",
      "--env",
      "--http"
    ],
    "kova-admin service start": [
      "--help"
    ],
    "kova-admin service stop": [
      "--help"
    ],
    "kova-admin service remove": [
      "--help"
    ],
    "kova-admin service run": [
      "--help",
      "--env",
      "--http"
    ]
  },
  "values": {
    "kova-admin approve --env": "FILE",
    "kova-admin approve --journal": "FILE",
    "kova-admin approve --secret-file": "FILE",
    "kova-admin approve --digest": "TEXT",
    "kova-admin approve --copy-to": "FILE",
    "kova-admin approve <": "FILE",
    "kova-admin approvals list --env": "FILE",
    "kova-admin approvals list --journal": "FILE",
    "kova-admin approvals clean --env": "FILE",
    "kova-admin approvals clean --journal": "FILE",
    "kova-admin audit report --format": "TEXT",
    "kova-admin audit report --output": "FILE",
    "kova-admin audit report --journal": "FILE",
    "kova-admin audit report --since": "TEXT",
    "kova-admin audit report --until": "TEXT",
    "kova-admin audit report --client": "TEXT",
    "kova-admin audit report --tool": "TEXT",
    "kova-admin audit tail --lines": "TEXT",
    "kova-admin audit export --to": "TEXT",
    "kova-admin audit export --output": "FILE",
    "kova-admin audit export --since": "TEXT",
    "kova-admin audit export --until": "TEXT",
    "kova-admin audit export --client": "TEXT",
    "kova-admin audit export --tool": "TEXT",
    "kova-admin audit seal --to": "TEXT",
    "kova-admin audit verify --kept": "TEXT",
    "kova-admin bundle --env": "FILE",
    "kova-admin bundle --output": "FILE",
    "kova-admin bundle --server": "FILE",
    "kova-admin bundle --library": "FILE",
    "kova-admin bundle --audit": "TEXT",
    "kova-admin doctor --env": "FILE",
    "kova-admin doctor --server": "FILE",
    "kova-admin init --folder": "FOLDER",
    "kova-admin init --server": "TEXT",
    "kova-admin init --port": "TEXT",
    "kova-admin init --database": "TEXT",
    "kova-admin init --user": "TEXT",
    "kova-admin init --password-file": "FILE",
    "kova-admin init --client-id": "TEXT",
    "kova-admin init --name": "TEXT",
    "kova-admin init --tables": "TEXT",
    "kova-admin init --denied-columns": "TEXT",
    "kova-admin init --collections": "TEXT",
    "kova-admin init --write-tables": "TEXT",
    "kova-admin init --writes": "none approval",
    "kova-admin init --transport": "stdio http",
    "kova-admin init --http-port": "TEXT",
    "kova-admin policy check --env": "FILE",
    "kova-admin policy check <": "FILE",
    "kova-admin policy diff --env": "FILE",
    "kova-admin policy diff <": "FILE",
    "kova-admin policy explain --env": "FILE",
    "kova-admin policy explain <": "FILE",
    "kova-admin policy lint --env": "FILE",
    "kova-admin policy lint <": "FILE",
    "kova-admin policy test --env": "FILE",
    "kova-admin policy test --junit": "FILE",
    "kova-admin policy test <": "FILE",
    "kova-admin serve --env": "FILE",
    "kova-admin serve --http": "TEXT",
    "kova-admin service install --env": "FILE",
    "kova-admin service install --http": "TEXT",
    "kova-admin service run --env": "FILE",
    "kova-admin service run --http": "TEXT"
  }
}
'@
    $path = 'kova-admin'
    $before = ''
    $help = $false
    $words = @($commandAst.CommandElements | Select-Object -Skip 1 |
        Where-Object { $_.Extent.EndOffset -lt $cursorPosition } |
        ForEach-Object { $_.Extent.Text })
    foreach ($word in $words) {
        $kind = if ($before.StartsWith('-')) { $table.values."$path $before" }
        $before = $word
        if ($kind) {
            $before = ''
        } elseif ($path -eq 'kova-admin' -and $word -eq 'help') {
            $help = $true
        } elseif ($table.commands.$path -contains $word) {
            $path = "$path $word"
        }
    }
    $kind = if ($before.StartsWith('-')) { $table.values."$path $before" }
    # Nothing returned: PowerShell completes file names by itself.
    if (-not $help -and ($kind -eq 'FILE' -or $kind -eq 'FOLDER' -or $kind -eq 'TEXT')) { return }
    $found = if ($help) { $table.commands.$path }
        elseif ($kind) { $kind.Split(' ') }
        elseif ($wordToComplete.StartsWith('-') -or -not $table.commands.$path) {
            $table.options.$path
        }
        else { $table.commands.$path }
    $found | Where-Object { $_.StartsWith($wordToComplete) } | ForEach-Object {
        [System.Management.Automation.CompletionResult]::new($_, $_, 'ParameterValue', $_)
    }
}
