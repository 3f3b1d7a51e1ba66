// Tables as files that a spreadsheet opens.

// A cell that a spreadsheet would take for a formula gets an apostrophe before it.
function cell(value: string | number): string {
  const text = String(value)
  const harmless = typeof value === 'string' && /^[=+\-@\t\r]/.test(text) ? `'${text}` : text
  return /[",\r\n]/.test(harmless) ? `"${harmless.replaceAll('"', '""')}"` : harmless
}

// With a mark at the beginning that says that the text is UTF-8.
export const csv = (rows: readonly (readonly (string | number)[])[]): string =>
  `\uFEFF${rows.map(row => row.map(cell).join(',')).join('\r\n')}\r\n`
