// All that the interface says, a file a language. English is there from the start; another one is loaded when it is wanted.
import { signal } from '@preact/signals'
import english from './texts/en'

export type TextKey = keyof typeof english
export type Catalogue = Readonly<Record<TextKey, string>>

// A language is a row here and a file of its texts.
const LANGUAGES = {
  en: { name: 'English', load: () => Promise.resolve({ default: english as Catalogue }) },
  de: { name: 'Deutsch', load: () => import('./texts/de') },
  fr: { name: 'Français', load: () => import('./texts/fr') },
} as const
export type Language = keyof typeof LANGUAGES
export const languages = Object.entries(LANGUAGES).map(([id, { name }]) => ({
  id: id as Language,
  name,
}))
const PLACE = 'ormel.language'

export const language = signal<Language>('en')
let texts: Catalogue = english
export const locale = (): string => language.value

const isLanguage = (text: string): text is Language => text in LANGUAGES

// The texts come first, so that no page is half in one language. One that cannot be loaded changes nothing.
export async function speak(to: Language): Promise<void> {
  try {
    texts = (await LANGUAGES[to].load()).default
    language.value = to
  } catch {
    // The appliance is out of reach, which the page says anyway.
  }
}
export async function setLanguage(to: Language): Promise<void> {
  localStorage.setItem(PLACE, to)
  await speak(to)
}

// The language that was chosen here, or else the first of the browser's that there is.
export async function firstLanguage(): Promise<void> {
  const wanted = [localStorage.getItem(PLACE) ?? '', ...navigator.languages].map(one =>
    one.slice(0, 2),
  )
  await speak(wanted.find(isLanguage) ?? 'en')
}

export const fill = (text: string, values: Record<string, string | number>): string =>
  text.replace(/\{(\w+)\}/g, (whole, name: string) => String(values[name] ?? whole))

// A text in the language of the user; "{name}" in it becomes the value of that name.
export function t(key: TextKey, values: Record<string, string | number> = {}): string {
  void language.value // who shows a text shows it again in the next language
  return fill(texts[key], values)
}

// The text of a key that may be none.
export const textOr = (key: string, otherwise: string): string =>
  key in english ? t(key as TextKey) : otherwise
