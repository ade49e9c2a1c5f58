# Completion for kova-mcp. Written by scripts/make_command_files.py.
# Load it in your profile: . PATH\kova-mcp.ps1
Register-ArgumentCompleter -Native -CommandName kova-mcp, kova-mcp.exe -ScriptBlock {
    param($wordToComplete, $commandAst, $cursorPosition)
    $table = ConvertFrom-Json @'
{
  "commands": {},
  "options": {
    "kova-mcp": [
      "--check-policy",
      "--check-config",
      "--issue-approval",
      "--http"
    ]
  },
  "values": {
    "kova-mcp --http": "TEXT"
  }
}
'@
    $path = 'kova-mcp'
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
        } elseif ($path -eq 'kova-mcp' -and $word -eq 'help') {
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
