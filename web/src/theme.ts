// Light or dark: as the system has it, or as the user wants it here.
import { computed, effect, signal } from '@preact/signals'

export const THEMES = ['auto', 'light', 'dark'] as const
export type Theme = (typeof THEMES)[number]
const PLACE = 'ormel.theme'

const isTheme = (text: string | null): text is Theme => THEMES.some(one => one === text)
const stored = typeof localStorage === 'undefined' ? null : localStorage.getItem(PLACE)
export const theme = signal<Theme>(isTheme(stored) ? stored : 'auto')
const systemDark = signal(false)
export const dark = computed(() =>
  theme.value === 'auto' ? systemDark.value : theme.value === 'dark',
)

export function setTheme(to: Theme): void {
  localStorage.setItem(PLACE, to)
  theme.value = to
}

// Keeps the style sheet up to date.
export function watchTheme(): void {
  const system = matchMedia('(prefers-color-scheme: dark)')
  systemDark.value = system.matches
  system.addEventListener('change', () => (systemDark.value = system.matches))
  effect(() => {
    document.documentElement.dataset['theme'] = dark.value ? 'dark' : 'light'
  })
}
