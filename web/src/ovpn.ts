// OpenVPN profiles before they are sent: which of the chosen files belong together.

// The files that a profile can name beside itself, as the variables that bring them.
export const COMPANIONS = [
  'ca',
  'cert',
  'key',
  'pkcs12',
  'extra_certs',
  'tls_auth',
  'crl_verify',
] as const
export type Companion = (typeof COMPANIONS)[number]
// Without these the profile is not even judged.
export const NEEDED: readonly Companion[] = ['ca', 'cert', 'key']

const optionOf = (companion: Companion): string => companion.replace('_', '-')
const lastPart = (path: string): string => path.split(/[\\/]/).pop() ?? path

// From each companion that a profile refers to, to the name of the file.
export function references(text: string): Partial<Record<Companion, string>> {
  const found: Partial<Record<Companion, string>> = {}
  let inside = ''
  for (const raw of text.split('\n')) {
    const line = raw.trim()
    const block = /^<(\/?)([\w-]+)>$/.exec(line)
    if (block) {
      inside = block[1] ? '' : (block[2] ?? '')
      continue
    }
    if (inside) continue
    for (const companion of COMPANIONS) {
      const option = optionOf(companion)
      if (!line.startsWith(`${option} `)) continue
      const value = line.slice(option.length).trim()
      const name = /^"([^"]+)"|^(\S+)/.exec(value)
      const file = name?.[1] ?? name?.[2]
      if (file && file !== '[inline]') found[companion] = lastPart(file)
    }
  }
  return found
}

export const isProfile = (name: string): boolean => /\.(ovpn|conf)$/i.test(name)

// The chosen file that a reference means, by its name.
export const match = (name: string, files: readonly File[]): File | undefined =>
  files.find(file => file.name.toLowerCase() === name.toLowerCase())
